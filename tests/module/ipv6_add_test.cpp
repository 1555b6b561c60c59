// SPDX-License-Identifier: GPL-2.0-only
//
// Which forwarded packets make an IPv6 entry, and what is in it.
#include <functional>

#include "kernel/if_vlan.h"
#include "module/brc/table.h"
#include "tests/module/ipv6_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;
constexpr u32 fragment_l4 = wire::ethernet_length + wire::ipv6_length + sizeof(wire::ipv6_frag_hdr);

class ipv6_add : public ipv6_scene {
 protected:
  [[nodiscard]] static packet link() { return ethernet(lan_mac, host_mac); }

  tracked6 ct{tcp, inside6, peer6};
};

struct refused_row {
  const char* name;
  std::function<void(report6&)> change;
  u32 counted = 1;  ///< add calls
};

/// Each row spoils one thing of a report that would be taken; afterwards the sound report is.
TEST_F(ipv6_add, refuses_silently) {
  scoped_route6 local("2620::100", 128, "::", wan, RTN_LOCAL);
  scoped_route6 blackhole("2620::200", 128, "::", wan, RTN_UNREACHABLE);
  fake_device bare("bare0");
  scoped_route6 unresolved("2620::300", 128, "::", bare);
  const auto towards = [](const char* destination) {
    return [destination](report6& r) {
      r.frame = packet6(link(), tcp, inside6, {destination, 443}).build();
    };
  };
  const auto frame = [](const packet& p) { return [p](report6& r) { r.frame = p.build(); }; };
  const auto fragment = [](u16 word, u8 protocol) {
    return [word, protocol](report6& r) {
      r.frame = fragment6(link(), 1, word, inside6, peer6, protocol).udp(1, 2).payload(8).build();
      r.l4 = fragment_l4;
    };
  };
  const auto gateway_is = [this](u8 state) {
    return [this, state](report6&) { gateway6.get()->nud_state = state; };
  };
  const auto connection = [this](auto change) {
    return [this, change](report6&) { change(ct.get()); };
  };
  const packet sound = packet6(link(), tcp, inside6, peer6);
  const refused_row rows[] = {
      {"reply mark", [](report6& r) { r.fast_flags = fast_flag::add_as_reply; }, 0},
      {"no connection", [](report6& r) { r.ct = nullptr; }, 0},
      {"no record", connection([](nf_conn* c) { c->vok_ext = nullptr; }), 0},
      {"no input device", [](report6& r) { r.rx_dev = nullptr; }},
      {"no route", [](report6& r) { r.routed = false; }},
      {"marked packet", [](report6& r) { r.fast_flags = fast_flag::never_add; }},
      {"marked connection",
       connection([](nf_conn* c) { c->vok_ext->flags |= ct_ext_flag::never_add; })},
      {"helper", connection([](nf_conn* c) { c->helper = "ftp"; })},
      {"related", [](report6& r) { r.info = IP_CT_RELATED; }},
      {"related reply", [](report6& r) { r.info = IP_CT_RELATED_REPLY; }},
      {"fin wait", connection([](nf_conn* c) { c->tcp.state = TCP_CONNTRACK_FIN_WAIT; })},
      {"time wait", connection([](nf_conn* c) { c->tcp.state = TCP_CONNTRACK_TIME_WAIT; })},
      {"local route", towards("2620::100")},
      {"unreachable route", towards("2620::200")},
      {"no neighbour", towards("2620::300")},
      {"neighbour incomplete", gateway_is(NUD_INCOMPLETE)},
      {"neighbour failed", gateway_is(NUD_FAILED)},
      {"neighbour without nd", gateway_is(NUD_NOARP)},
      {"ipv4", frame(packet_of(tcp, lan_mac, host_mac, inside, peer).payload(40))},
      {"icmpv6", frame(packet(sound).type(wire::ip_protocol::icmpv6))},
      {"hop-by-hop options", frame(packet(sound).type(0))},
      {"fragment of tcp", fragment(1, tcp)},
      {"later fragment", fragment(64, udp)},
      {"ports cut off", frame(packet(sound).truncate(57))},
      {"header cut off", frame(packet(sound).truncate(53))},
      {"transport header not set", [](report6& r) { r.l4 = 0; }},
  };
  for (const refused_row& row : rows) {
    SCOPED_TRACE(row.name);
    vok_ct_ext* ext = ct->vok_ext;
    *ext = {};
    report6 r = outbound(ct, tcp);
    row.change(r);
    if (r.frame.size() < wire::ethernet_length + wire::ipv6_length ||
        r.frame[wire::ethernet_length] >> 4 != 6) {
      r.routed = false;
    }
    make_report(r);
    EXPECT_EQ(count6(), 0);
    EXPECT_EQ(ext->flags & ct_ext_flag::ever_added, 0U);
    EXPECT_EQ(ext->add_calls, row.counted);
    EXPECT_EQ(ct.references(), 1);
    ct->vok_ext = ext;
    *ext = {};
    ct->helper = nullptr;
    ct->tcp.state = TCP_CONNTRACK_ESTABLISHED;
    gateway6.get()->nud_state = NUD_REACHABLE;
  }
  gateway6.get()->nud_state = NUD_STALE;
  EXPECT_EQ(make_report(outbound(ct, tcp)), fast_flag::original_direction);
  EXPECT_EQ(count6(), 1);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(ipv6_add, records_both_directions) {
  EXPECT_EQ(make_report(outbound(ct, tcp)), fast_flag::original_direction);
  EXPECT_EQ(make_report(inbound(ct, tcp)), 0U);
  ASSERT_EQ(count6(), 2);
  const ipc_v6_entry* original = find6(tcp, inside6, peer6);
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(original->flags, 0U);
  EXPECT_EQ(original->sendif, wan.get());
  EXPECT_EQ(mac_text(original->dmac), gateway_mac);
  EXPECT_EQ(mac_text(original->smac), wan_mac);
  EXPECT_EQ(original->dir, IP_CT_DIR_ORIGINAL);
  EXPECT_EQ(original->ct, ct.get());
  EXPECT_EQ(original->ppp_dev, nullptr);
  const ipc_v6_entry* reply = find6(tcp, peer6, inside6);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->sendif, lan.get());
  EXPECT_EQ(mac_text(reply->dmac), host_mac);
  EXPECT_EQ(reply->dir, IP_CT_DIR_REPLY);
  EXPECT_EQ(ct->vok_ext->flags, ct_ext_flag::ever_added);

  make_report(outbound(ct, tcp));
  EXPECT_EQ(count6(), 2);
  EXPECT_EQ(find6(tcp, inside6, peer6), original);
  EXPECT_EQ(ct->vok_ext->add_calls, 3U);
}

TEST_F(ipv6_add, takes_the_ports_of_a_first_fragment) {
  tracked6 datagrams(udp, inside6, peer6);
  report6 r = outbound(datagrams, udp);
  r.frame = fragment6(link(), 1, 1, inside6, peer6).udp(inside6.port, peer6.port).build();
  r.l4 = fragment_l4;
  make_report(r);
  EXPECT_NE(find6(udp, inside6, peer6), nullptr);
}

TEST_F(ipv6_add, failing_allocations_refuse_and_leak_nothing) {
  const report6 r = outbound(ct, tcp);
  sk_buff* skb = make_skb(r.frame, lan);
  skb->network_header = static_cast<u16>(skb_headroom(skb) + wire::ethernet_length);
  skb->transport_header = static_cast<u16>(skb_headroom(skb) + r.l4);
  ct.attach(skb, r.info);
  const wire::in6_addr destination = ip6(peer6.address);
  in_softirq([&] {
    ASSERT_EQ(ip6_route_input(skb, &destination), 0);
    for (u32 nth = 1;; ++nth) {
      fault::fail_allocation(nth);
      kcih->__ipv6_conntrack_ipc_add(kcih, skb);
      const bool fired = fault::fired();
      fault::fail_allocation(0);
      EXPECT_EQ(count6(), fired ? 0 : 1);
      if (!fired) break;
    }
    // Without a handle or table nothing is added, and nothing is left behind.
    vok_handle empty = {};
    kcih->__ipv6_conntrack_ipc_add(nullptr, skb);
    kcih->__ipv6_conntrack_ipc_add(&empty, skb);
    kfree_skb(skb);
  });
}

struct session_row {
  const char* name;
  u16 in;   ///< session of the input, 0: plain
  u16 out;  ///< session of the output, 0: plain
  bool added;
  u32 flags;
};

/// Sessions are what tells entries on either side of a PPPoE line.
TEST_F(ipv6_add, records_pppoe_sessions) {
  const session_row rows[] = {
      {"in", 0x1234, 0, true, ipc_flag::pppoe_in},
      {"in without session", 0xFFFF, 0, false, 0},
      {"out", 0, 0x5678, true, ipc_flag::pppoe_out},
      {"out without session", 0, 0xFFFF, false, 0},
      {"in and out", 0x1234, 0x5678, true, ipc_flag::pppoe_in_out},
      {"in and out, no input session", 0xFFFF, 0x5678, false, 0},
      {"in and out, no output session", 0x1234, 0xFFFF, false, 0},
  };
  for (const session_row& row : rows) {
    SCOPED_TRACE(row.name);
    pppoe_line in("ppp0", lan, row.in, "02:00:00:00:03:01");
    pppoe_line out("ppp1", wan, row.out, "02:00:00:00:03:02");
    scoped_route6 way("2620::", 16, "::", row.out != 0 ? out : wan.get());
    scoped_neighbour6 direct(peer6.address, wan, gateway_mac);
    tracked6 line(udp, inside6, peer6);
    report6 r = outbound(line, udp);
    if (row.in != 0) r.rx_dev = in;
    make_report(r);
    const ipc_v6_entry* entry = find6(udp, inside6, peer6);
    ASSERT_EQ(entry != nullptr, row.added);
    if (!row.added) continue;
    EXPECT_EQ(entry->flags, row.flags);
    EXPECT_EQ(entry->sendif, wan.get());
    EXPECT_EQ(entry->ppp_dev, static_cast<net_device*>(row.in != 0 ? in : out));
    EXPECT_EQ(entry->pppoe_sid, wire::htons(row.out != 0 ? row.out : row.in));
    if (row.in != 0 && row.out != 0) {
      EXPECT_EQ(entry->pppoe_sid_in, wire::htons(row.in));
    }
    EXPECT_EQ(mac_text(entry->dmac), row.out != 0 ? "02:00:00:00:03:02" : gateway_mac);
    EXPECT_EQ(mac_text(entry->smac), wan_mac);
    EXPECT_EQ(line->vok_ext->dev, row.out != 0 ? static_cast<net_device*>(out) : nullptr);
  }
}

TEST_F(ipv6_add, knows_no_tunnels) {
  fake_device tunnel("ppp0", "00:00:00:00:00:00", ARPHRD_PPP);
  scoped_neighbour6 far_end("::", tunnel, "00:00:00:00:00:00", NUD_NOARP);
  scoped_route6 way("2620::", 16, "::", tunnel);
  for (const auto type : {ppp_channel_type::l2tp, ppp_channel_type::pptp}) {
    ppp_conn_info info = {};
    info.type = static_cast<u8>(type);
    ASSERT_EQ(ppp_attach_channel(tunnel, &info), 0);
    make_report(outbound(ct, tcp));
    EXPECT_EQ(count6(), 0);
    report6 back = inbound(ct, tcp);
    back.dev = tunnel;
    make_report(back);
    EXPECT_EQ(count6(), 0);
    ppp_detach_channel(tunnel);
  }
  // Without a channel it is a plain point-to-point device.
  make_report(outbound(ct, tcp));
  EXPECT_EQ(find6(tcp, inside6, peer6)->sendif, tunnel.get());
}

class ipv6_add_to_bridge : public ipv6_add {
 protected:
  ipv6_add_to_bridge() {
    bridge->priv_flags |= IFF_EBRIDGE;
    known.bridgeID = bridge_id(bridge);
    known.sendif = port;
    known.tag_mode = static_cast<u8>(tag_mode::untag);
    const mac at = mac_of(gateway_mac);
    std::copy(std::begin(at.at), std::end(at.at), known.dmac);
  }

  fake_device bridge{"br0", "02:00:00:00:04:01"};
  fake_device port{"eth2", "02:00:00:00:04:11"};
  scoped_route6 bridge_route{"2620::", 16, "::", bridge};
  scoped_neighbour6 neighbour_{peer6.address, bridge, gateway_mac};
  ::brc known = {};
};

TEST_F(ipv6_add_to_bridge, finds_the_port_and_keeps_no_reference) {
  ::brc elsewhere = known;
  elsewhere.bridgeID = static_cast<u16>(known.bridgeID + 1);
  ASSERT_EQ(_vok_brc_add(kcih, &elsewhere), 0);
  make_report(outbound(ct, tcp));
  EXPECT_EQ(count6(), 0);
  ASSERT_EQ(_vok_brc_add(kcih, &known), 0);
  make_report(outbound(ct, tcp));
  ASSERT_EQ(count6(), 1);
  EXPECT_EQ(find6(tcp, inside6, peer6)->sendif, port.get());
  EXPECT_EQ(_vok_brc_lkup_brid(kcih, known.dmac, known.bridgeID)->refcnt, 1);
}

TEST_F(ipv6_add_to_bridge, leaves_by_the_vlan_of_the_port) {
  net_device* vlan = vlan_dev_alloc("eth2.30", port, 30, VLAN_FLAG_REORDER_HDR);
  ASSERT_EQ(register_netdevice(vlan), 0);
  known.vlan_dev = vlan;
  known.VLANID = 30;
  ASSERT_EQ(_vok_brc_add(kcih, &known), 0);
  make_report(outbound(ct, tcp));
  ASSERT_EQ(count6(), 1);
  EXPECT_EQ(find6(tcp, inside6, peer6)->sendif, vlan);
  EXPECT_EQ(ct->vok_ext->vlan[0].vid, 30);
  EXPECT_EQ(ct->vok_ext->vlan[0].real_dev, port.get());
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, vlan), 0);
  unregister_netdevice(vlan);
}

}  // namespace
}  // namespace tarvelo::test
