// SPDX-License-Identifier: GPL-2.0-only
//
// What leaves the routed path, byte for byte, against frames that the builder makes from scratch.
#include "kernel/if_vlan.h"
#include "kernel/proc_tree.h"
#include "module/core/counters.h"
#include "module/forward/entry.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;

/// One direction of a translated connection and a packet that is to take it.
struct golden_row {
  const char* name;
  u8 protocol;
  bool destination_nat;
  bool reply;
  std::size_t payload;
  bool udp_checksum = true;
};

class golden : public module_scene, public testing::WithParamInterface<golden_row> {
 protected:
  [[nodiscard]] static bool leaves_by_wan() {
    return GetParam().destination_nat == GetParam().reply;
  }

  static packet finish(packet p) {
    if (!GetParam().udp_checksum) p.no_checksum();
    return p.tos(0x60).ttl(63).id(0x1234).payload(GetParam().payload);
  }

  [[nodiscard]] bytes offered() {
    const u8 protocol = GetParam().protocol;
    return finish(leaves_by_wan() ? packet_of(protocol, lan_mac, host_mac, inside, peer)
                                  : packet_of(protocol, wan_mac, gateway_mac, peer, translated))
        .build();
  }
  [[nodiscard]] bytes expected() {
    const u8 protocol = GetParam().protocol;
    return finish(leaves_by_wan() ? packet_of(protocol, gateway_mac, wan_mac, translated, peer)
                                  : packet_of(protocol, host_mac, lan_mac, peer, inside))
        .build();
  }
  [[nodiscard]] std::unique_ptr<tracked_connection> connection() {
    const u8 p = GetParam().protocol;
    return GetParam().destination_nat ? std::make_unique<tracked_connection>(
                                            tuple(p, peer, translated), tuple(p, inside, peer))
                                      : std::make_unique<tracked_connection>(
                                            tuple(p, inside, peer), tuple(p, peer, translated));
  }
  [[nodiscard]] report reported(const tracked_connection& ct) {
    const golden_row& row = GetParam();
    return row.destination_nat ? destination_nat(ct, row.protocol, row.reply)
                               : source_nat(ct, row.protocol, row.reply);
  }
};

TEST_P(golden, leaves_translated) {
  const auto ct = connection();
  ripen(reported(*ct));
  fake_device& in = leaves_by_wan() ? lan : wan;
  fake_device& out = leaves_by_wan() ? wan : lan;
  ASSERT_EQ(offer(offered(), in), fate::forward);

  const auto sent = out.take();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_FRAME_EQ(sent[0].data, expected());
  EXPECT_TRUE(sound_frame(sent[0].data));
  EXPECT_EQ(sent[0].fast_flags, fast_flag::sent_fast);
  EXPECT_EQ(sent[0].priority, 3U);
  EXPECT_EQ(sent[0].network_minus_mac(), 14);
  EXPECT_EQ(sent[0].nfct, &ct->get()->ct_general);
  EXPECT_EQ(sent[0].nfctinfo, GetParam().reply ? IP_CT_ESTABLISHED_REPLY : IP_CT_ESTABLISHED);
  EXPECT_EQ(ct->references(), 1);
  EXPECT_EQ(ip_packet, 1U);
  EXPECT_EQ(ethernet_packet, 1U);
}

TEST_P(golden, is_handed_back_at_every_truncation) {
  const auto ct = connection();
  ripen(reported(*ct));
  const bytes whole = offered();
  fake_device& in = leaves_by_wan() ? lan : wan;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_TRUE(is_handed_back(offer(cut, in))) << length;
  }
  EXPECT_EQ(ct->references(), 1);
  EXPECT_EQ(ip_packet, 0U);
}

INSTANTIATE_TEST_SUITE_P(nat, golden,
                         testing::Values(golden_row{"snat_tcp", tcp, false, false, 0},
                                         golden_row{"snat_tcp_odd_payload", tcp, false, false, 101},
                                         golden_row{"snat_tcp_reply", tcp, false, true, 7},
                                         golden_row{"snat_udp", udp, false, false, 18},
                                         golden_row{"snat_udp_reply", udp, false, true, 1},
                                         golden_row{"snat_udp_without_checksum", udp, false, false,
                                                    9, false},
                                         golden_row{"dnat_tcp", tcp, true, false, 0},
                                         golden_row{"dnat_tcp_reply", tcp, true, true, 33},
                                         golden_row{"dnat_udp", udp, true, false, 1200},
                                         golden_row{"dnat_udp_reply", udp, true, true, 2}),
                         [](const auto& row) { return std::string(row.param.name); });

class routed : public module_scene {
 protected:
  tracked_connection ct{tuple(tcp, inside, peer), tuple(tcp, peer, translated)};

  [[nodiscard]] static packet request() { return packet_of(tcp, lan_mac, host_mac, inside, peer); }
  [[nodiscard]] static packet departed() {
    return packet_of(tcp, gateway_mac, wan_mac, translated, peer);
  }
};

TEST_F(routed, starts_with_the_twentieth_report) {
  for (int i = 1; i < ripe; ++i)
    make_report(source_nat(ct, tcp, false));
  EXPECT_EQ(offer(request().build(), lan), fate::not_ripe);
  make_report(source_nat(ct, tcp, false));
  EXPECT_EQ(offer(request().build(), lan), fate::forward);
  EXPECT_EQ(ct->vok_ext->flags, 0x80000081U);
}

TEST_F(routed, leaves_padding_behind_the_packet_alone) {
  ripen(source_nat(ct, tcp, false));
  ASSERT_EQ(offer(request().pad_to(60).build(), lan), fate::forward);
  EXPECT_FRAME_EQ(wan.sent()[0].data, departed().pad_to(60).build());
}

TEST_F(routed, changes_the_port_only_where_it_differs) {
  tracked_connection same(tuple(udp, inside, {"198.51.100.8", 53}),
                          tuple(udp, {"198.51.100.8", 53}, {"203.0.113.9", inside.port}));
  report r = source_nat(same, udp, false);
  const endpoint server = {"198.51.100.8", 53};
  r.frame = packet_of(udp, lan_mac, host_mac, inside, server).build();
  r.tuple = tuple(udp, {"203.0.113.9", inside.port}, server);
  ripen(r);
  ASSERT_EQ(offer(packet_of(udp, lan_mac, host_mac, inside, server).payload(4).build(), lan),
            fate::forward);
  EXPECT_FRAME_EQ(wan.sent()[0].data,
                  packet_of(udp, gateway_mac, wan_mac, {"203.0.113.9", inside.port}, server)
                      .payload(4)
                      .build());
}

TEST_F(routed, keeps_to_the_mtu_of_the_output_device) {
  ripen(source_nat(ct, tcp, false));
  wan->mtu = 140;
  EXPECT_EQ(offer(request().payload(100).build(), lan), fate::forward);
  EXPECT_EQ(offer(request().payload(101).build(), lan), fate::too_long);
}

TEST_F(routed, strips_a_tag_and_keeps_its_priority) {
  ripen(source_nat(ct, tcp, false));
  const bytes tagged = packet()
                           .eth(lan_mac, host_mac)
                           .vlan(20, 5)
                           .ipv4(inside.address, peer.address)
                           .tcp(inside.port, peer.port)
                           .flags(wire::tcp_flag::ack)
                           .seq(1000, 2000)
                           .build();
  ASSERT_EQ(offer(tagged, lan), fate::forward);
  EXPECT_FRAME_EQ(wan.sent()[0].data, departed().build());
  EXPECT_EQ(wan.sent()[0].priority, 5U);
}

TEST_F(routed, drops_when_the_output_device_is_down) {
  ripen(source_nat(ct, tcp, false));
  wan.down();
  EXPECT_EQ(offer(request().build(), lan), fate::drop);
  EXPECT_EQ(ip_packet, 0U);
  wan.up();
  wan.set_mode(driver_mode::refuse);
  EXPECT_EQ(offer(request().build(), lan), fate::forward);
  EXPECT_EQ(ip_packet, 1U);
  EXPECT_EQ(ct.references(), 1);
}

TEST_F(routed, counters_begin_anew_after_32_bits) {
  ripen(source_nat(ct, tcp, false));
  const std::string line =
      "ethernet_packet=4294967295,bridge_packet=4294967295,"
      "bridge_pool_packet=4294967295,ip_packet=4294967295,"
      "ip_pool_packet=4294967295\n";
  ASSERT_EQ(proc::write_all("vok/statistics_info", line), static_cast<ssize_type>(line.size()));
  EXPECT_EQ(control_text("statistics_info"), line);
  ASSERT_EQ(offer(request().build(), lan), fate::forward);
  EXPECT_EQ(control_text("statistics_info"),
            "ethernet_packet=0,bridge_packet=4294967295,bridge_pool_packet=4294967295,ip_packet=0,"
            "ip_pool_packet=4294967295\n");
}

TEST_F(routed, marks_slow_transmit_while_the_switch_is_on) {
  ripen(source_nat(ct, tcp, false));
  g_vok_slow_xmit_enable = 1;
  ASSERT_EQ(offer(request().build(), lan), fate::forward);
  EXPECT_EQ(wan.sent()[0].fast_flags, fast_flag::sent_fast | fast_flag::slow_xmit);
}

TEST_F(routed, moves_the_timer_by_whole_seconds_only) {
  ripen(source_nat(ct, tcp, false));
  const u32 timeout = nf_ct_established_timeout(tcp);
  ASSERT_EQ(offer(request().build(), lan), fate::forward);
  const u32 first = nf_ct_expires(ct.get());
  EXPECT_EQ(first, u32{jiffies} + timeout);
  pass(999);
  ASSERT_EQ(offer(request().build(), lan), fate::forward);
  EXPECT_EQ(nf_ct_expires(ct.get()), first);
  pass(1);
  ASSERT_EQ(offer(request().build(), lan), fate::forward);
  EXPECT_EQ(nf_ct_expires(ct.get()), first + 1000);
}

TEST_F(routed, serves_point_to_point_devices_on_either_side) {
  fake_device tun("tun0", "00:00:00:00:00:00", ARPHRD_NONE);
  scoped_route tunnel_route("10.9.0.0", 16, "0.0.0.0", tun);
  scoped_neighbour far_end("0.0.0.0", tun, "00:00:00:00:00:00", NUD_NOARP);
  const endpoint remote = {"10.9.0.5", 7000};
  tracked_connection plain(tuple(udp, inside, remote), tuple(udp, remote, inside));
  const auto ip_only = [](endpoint from, endpoint to) {
    return packet().ipv4(from.address, to.address).udp(from.port, to.port).payload(20);
  };
  const nf_conntrack* carried = &plain->ct_general;
  ripen({packet_of(udp, lan_mac, host_mac, inside, remote).build(), plain.get(), carried,
         NF_INET_POST_ROUTING, IP_CT_ESTABLISHED, tun, lan, std::nullopt});
  ripen({packet_of(udp, lan_mac, host_mac, remote, inside).build(), plain.get(), carried,
         NF_INET_POST_ROUTING, IP_CT_ESTABLISHED_REPLY, lan, tun, std::nullopt,
         fast_flag::add_as_reply});
  EXPECT_EQ(plain->vok_ext->flags, 0x80100083U);

  ASSERT_EQ(offer(packet_of(udp, lan_mac, host_mac, inside, remote).payload(20).build(), lan),
            fate::forward);
  EXPECT_EQ(tun.sent().at(0).data, ip_only(inside, remote).build());
  EXPECT_EQ(tun.sent().at(0).protocol, wire::htons(wire::ethertype::ipv4));

  EXPECT_EQ(offer(ip_only(remote, inside).build(), tun, 31), fate::no_headroom);
  ASSERT_EQ(offer(ip_only(remote, inside).build(), tun, 32), fate::forward);
  EXPECT_FRAME_EQ(lan.sent().at(0).data,
                  packet_of(udp, host_mac, lan_mac, remote, inside).payload(20).build());
  // The pseudo header is counted: it is part of the length by now.
  lan->mtu = 48 + wire::ethernet_length - 1;
  EXPECT_EQ(offer(ip_only(remote, inside).build(), tun), fate::too_long);
}

TEST_F(routed, takes_frames_whose_ethernet_header_is_pulled) {
  ripen(source_nat(ct, tcp, false));
  const auto pulled = [&](const bytes& frame) {
    sk_buff* skb = make_skb(frame, lan);
    skb->mac_header = 77;
    skb_pull(skb, wire::ethernet_length);
    return skb;
  };
  sk_buff* sent = pulled(request().build());
  EXPECT_EQ(in_softirq([&] { return kcih->_vok_forward_eth_protocol(kcih, sent, 0); }), 0);
  EXPECT_FRAME_EQ(wan.sent().at(0).data, departed().build());

  const bytes syn = request().flags(wire::tcp_flag::syn).build();
  sk_buff* back = pulled(syn);
  const u8* data = back->data;
  EXPECT_EQ(in_softirq([&] { return kcih->_vok_forward_eth_protocol(kcih, back, 0); }), -1);
  EXPECT_EQ(back->data, data);
  EXPECT_EQ(back->len, syn.size() - wire::ethernet_length);
  EXPECT_EQ(back->mac_header, 77);
  kfree_skb(back);
}

class vlan_output : public module_scene {
 protected:
  vlan_output() {
    vlan_ = vlan_dev_alloc("wan0.7", wan, 7, VLAN_FLAG_REORDER_HDR);
    EXPECT_EQ(register_netdevice(vlan_), 0);
    dev_open(vlan_);
  }
  ~vlan_output() override { unregister_netdevice(vlan_); }

  net_device* vlan_;
};

TEST_F(vlan_output, tags_for_the_device_below) {
  scoped_route far("172.16.0.0", 16, "0.0.0.0", vlan_);
  scoped_neighbour next("172.16.0.9", vlan_, "02:00:00:00:07:09");
  const endpoint server = {"172.16.0.9", 443};
  tracked_connection ct(tuple(tcp, inside, server), tuple(tcp, server, inside));
  ripen({packet_of(tcp, lan_mac, host_mac, inside, server).build(), ct.get(), &ct->ct_general,
         NF_INET_POST_ROUTING, IP_CT_ESTABLISHED, vlan_, lan, std::nullopt});
  EXPECT_EQ(ct->vok_ext->vlan[0].vid, 7);
  EXPECT_EQ(ct->vok_ext->vlan[0].real_dev, wan.get());

  const auto offered = [&] { return packet_of(tcp, lan_mac, host_mac, inside, server).tos(0xA0); };
  EXPECT_EQ(offer(offered().build(), lan, 3), fate::no_headroom);
  ASSERT_EQ(offer(offered().build(), lan, 4), fate::forward);
  const sent_frame& sent = wan.sent().at(0);
  EXPECT_FRAME_EQ(sent.data, packet()
                                 .eth("02:00:00:00:07:09", wan_mac)
                                 .vlan(7, 5)
                                 .ipv4(inside.address, server.address)
                                 .tos(0xA0)
                                 .tcp(inside.port, server.port)
                                 .flags(wire::tcp_flag::ack)
                                 .seq(1000, 2000)
                                 .build());
  EXPECT_EQ(sent.fast_flags,
            fast_flag::sent_fast | fast_flag::tag_written | fast_flag::vlan_slot_valid);
  EXPECT_EQ(sent.network_minus_mac(), 18);
  EXPECT_EQ(dev_stats(vlan_).tx_packets, 1U);
}

}  // namespace
}  // namespace tarvelo::test
