// SPDX-License-Identifier: GPL-2.0-only
//
// Which reports make an entry, and what is in it.
#include <functional>

#include "kernel/if_vlan.h"
#include "module/brc/table.h"
#include "module/ipc/table.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;

[[nodiscard]] ipc_entry* find(endpoint from, endpoint to, u8 protocol, u8 check_brc = 0) {
  return kcih->_vok_ipc_lkup(kcih, ip4(from.address), ip4(to.address), protocol,
                             wire::htons(from.port), wire::htons(to.port), check_brc);
}

[[nodiscard]] int count() {
  return kcih->_vok_ipc_count_get(kcih);
}

class add : public module_scene {
 protected:
  tracked_connection ct{tuple(tcp, inside, peer), tuple(tcp, peer, translated)};
};

struct refused_row {
  const char* name;
  std::function<void(report&)> change;
};

/// Each row spoils one thing of a report that would be taken; afterwards the sound report is.
TEST_F(add, refuses_silently) {
  scoped_route blackhole("198.51.100.128", 25, "0.0.0.0", wan, RTN_UNREACHABLE);
  scoped_route local("198.51.100.64", 26, "0.0.0.0", wan, RTN_LOCAL);
  const auto towards = [](const char* destination) {
    return [destination](report& r) {
      r.frame = packet_of(tcp, lan_mac, host_mac, inside, {destination, 80}).build();
    };
  };
  const auto frame = [](const packet& p) { return [p](report& r) { r.frame = p.build(); }; };
  const packet sound = packet_of(tcp, lan_mac, host_mac, inside, peer);
  const refused_row rows[] = {
      {"no connection", [](report& r) { r.ct = nullptr; }},
      {"ipv6", frame(packet().eth(lan_mac, host_mac).ipv6("2001:db8::1", "2001:db8::2").tcp(1, 2))},
      {"icmp", frame(packet()
                         .eth(lan_mac, host_mac)
                         .ipv4(inside.address, peer.address)
                         .icmp(8, 0)
                         .payload(20))},
      {"ports cut off", frame(packet(sound).truncate(37))},
      {"header cut off", frame(packet(sound).truncate(33))},
      {"later fragment", frame(packet(sound).fragment(64, false))},
      {"local-in", [](report& r) { r.hook = NF_INET_LOCAL_IN; }},
      {"forward", [](report& r) { r.hook = NF_INET_FORWARD; }},
      {"local-out", [](report& r) { r.hook = NF_INET_LOCAL_OUT; }},
      {"no input device", [](report& r) { r.rx_dev = nullptr; }},
      {"marked packet", [](report& r) { r.fast_flags = fast_flag::never_add; }},
      {"marked connection", [](report& r) { r.ct->vok_ext->flags |= ct_ext_flag::never_add; }},
      {"helper", [](report& r) { r.ct->helper = "ftp"; }},
      {"related", [](report& r) { r.info = IP_CT_RELATED; }},
      {"related reply", [](report& r) { r.info = IP_CT_RELATED_REPLY; }},
      {"new reply", [](report& r) { r.info = IP_CT_NEW_REPLY; }},
      {"fin wait", [](report& r) { r.ct->tcp.state = TCP_CONNTRACK_FIN_WAIT; }},
      {"time wait", [](report& r) { r.ct->tcp.state = TCP_CONNTRACK_TIME_WAIT; }},
      {"local route", towards("198.51.100.65")},
      {"unreachable route", towards("198.51.100.130")},
      {"neighbour failed", [this](report&) { gateway.get()->nud_state = NUD_FAILED; }},
      {"neighbour without arp", [this](report&) { gateway.get()->nud_state = NUD_NOARP; }},
  };
  for (const refused_row& row : rows) {
    SCOPED_TRACE(row.name);
    const vok_ct_ext record = *ct->vok_ext;
    report r = source_nat(ct, tcp, false);
    row.change(r);
    make_report(r);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(ct->vok_ext->flags & ct_ext_flag::ever_added, 0U);
    EXPECT_EQ(ct.references(), 1);
    *ct->vok_ext = record;
    ct->helper = nullptr;
    ct->tcp.state = TCP_CONNTRACK_ESTABLISHED;
    gateway.get()->nud_state = NUD_REACHABLE;
  }
  make_report(source_nat(ct, tcp, false));
  EXPECT_EQ(count(), 1);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(add, records_both_directions_of_source_nat) {
  make_report(source_nat(ct, tcp, false));
  make_report(source_nat(ct, tcp, true));
  ASSERT_EQ(count(), 2);
  const ipc_entry* original = find(inside, peer, tcp);
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(original->flags, ipc_flag::snat);
  EXPECT_EQ(original->natip, ip4(translated.address));
  EXPECT_EQ(original->natp, wire::htons(translated.port));
  EXPECT_EQ(original->sendif, wan.get());
  EXPECT_EQ(mac_text(original->dmac), gateway_mac);
  EXPECT_EQ(mac_text(original->smac), wan_mac);
  EXPECT_EQ(original->dir, IP_CT_DIR_ORIGINAL);
  EXPECT_EQ(original->ct, ct.get());
  EXPECT_EQ(original->create_time, u32{jiffies});

  const ipc_entry* reply = find(peer, translated, tcp);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->flags, ipc_flag::dnat);
  EXPECT_EQ(reply->natip, ip4(inside.address));
  EXPECT_EQ(reply->sendif, lan.get());
  EXPECT_EQ(mac_text(reply->dmac), host_mac);
  EXPECT_EQ(reply->dir, IP_CT_DIR_REPLY);

  EXPECT_EQ(ct->vok_ext->flags, 0x80010083U);
  make_report(source_nat(ct, tcp, false));
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(ct->vok_ext->add_calls, 3U);
}

TEST_F(add, records_both_directions_of_destination_nat) {
  tracked_connection forwarded(tuple(udp, peer, translated), tuple(udp, inside, peer));
  make_report(destination_nat(forwarded, udp, false));
  make_report(destination_nat(forwarded, udp, true));
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(forwarded->vok_ext->flags, 0x8010000BU);
  EXPECT_EQ(find(peer, translated, udp)->flags, ipc_flag::dnat);
  EXPECT_EQ(find(inside, peer, udp)->flags, ipc_flag::snat);
}

TEST_F(add, buckets_are_the_documented_sum) {
  EXPECT_EQ(ipc_bucket({ip4("192.168.1.2"), ip4("198.51.100.7"), wire::htons(40000),
                        wire::htons(80), tcp}),
            3368U);
  EXPECT_EQ(ipc_bucket({ip4("198.51.100.7"), ip4("203.0.113.9"), wire::htons(80),
                        wire::htons(40000), tcp}),
            1331U);
}

TEST_F(add, marks_a_connection_that_is_translated_twice) {
  report at_destination = source_nat(ct, tcp, false);
  at_destination.hook = NF_INET_LOCAL_OUT;
  const u32 met = make_report(at_destination);
  EXPECT_EQ(met, fast_flag::met_destination_nat);

  report at_source = source_nat(ct, tcp, false);
  at_source.fast_flags = met;
  make_report(at_source);
  EXPECT_EQ(ct->vok_ext->double_nat, 1);
  make_report(source_nat(ct, tcp, true));
  EXPECT_EQ(count(), 0);
}

TEST_F(add, leaves_a_known_key_alone) {
  make_report(source_nat(ct, tcp, false));
  tracked_connection twin(tuple(tcp, inside, peer), tuple(tcp, peer, {"203.0.113.9", 61001}));
  make_report(source_nat(twin, tcp, false));
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(find(inside, peer, tcp)->ct, ct.get());
  EXPECT_EQ(twin->vok_ext->flags, 0U);
}

TEST_F(add, warns_of_a_packet_without_connection) {
  report r = source_nat(ct, tcp, false);
  r.carried = nullptr;
  make_report(r);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(log.take_text(),
            std::vector<std::string>{
                "_vok_ipc_add: in the ipc ip src =201a8c0     ip dst =76433c6              "
                "protocol =6   portsrc =16540     portdst =20480 \n\n"});
}

TEST_F(add, without_a_handle_releases_what_it_built) {
  report r = source_nat(ct, tcp, false);
  sk_buff* skb = make_skb(r.frame, wan);
  skb->rx_dev = lan;
  skb->network_header = static_cast<u16>(skb_headroom(skb) + wire::ethernet_length);
  in_softirq([&] {
    kcih->_ip_conntrack_ipct_add(nullptr, skb, r.hook, ct.get(), r.info, &*r.tuple);
    kfree_skb(skb);
  });
  const auto lines = log.take_text();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].rfind("_vok_ipc_add: Invalid input (ci ", 0), 0U) << lines[0];
}

TEST_F(add, failing_allocations_refuse_and_leak_nothing) {
  for (u32 nth = 1;; ++nth) {
    report r = source_nat(ct, tcp, false);
    sk_buff* skb = make_skb(r.frame, wan);
    skb->rx_dev = lan;
    skb->network_header = static_cast<u16>(skb_headroom(skb) + wire::ethernet_length);
    fault::fail_allocation(nth);
    in_softirq(
        [&] { kcih->_ip_conntrack_ipct_add(kcih, skb, r.hook, ct.get(), r.info, &*r.tuple); });
    const bool fired = fault::fired();
    fault::fail_allocation(0);
    in_softirq([&] { kfree_skb(skb); });
    EXPECT_EQ(count(), fired ? 0 : 1);
    if (!fired) break;
  }
}

TEST_F(add, ten_thousand_connections_are_all_kept) {
  constexpr int many = 10000;
  std::vector<std::unique_ptr<tracked_connection>> all;
  for (int i = 0; i < many; ++i) {
    const endpoint from = {inside.address, static_cast<u16>(1024 + i)};
    all.push_back(
        std::make_unique<tracked_connection>(tuple(udp, from, peer), tuple(udp, peer, translated)));
    report r = source_nat(*all.back(), udp, false);
    r.frame = packet_of(udp, lan_mac, host_mac, from, peer).build();
    make_report(r);
  }
  EXPECT_EQ(count(), many);
  for (int i = 0; i < many; ++i) {
    ASSERT_NE(find({inside.address, static_cast<u16>(1024 + i)}, peer, udp), nullptr);
  }
}

class add_to_bridge : public module_scene {
 protected:
  add_to_bridge() {
    bridge->priv_flags |= IFF_EBRIDGE;
    host.bridgeID = bridge_id(bridge);
    host.sendif = port;
    host.tag_mode = static_cast<u8>(tag_mode::untag);
    const mac at = mac_of("02:00:00:00:04:02");
    std::copy(std::begin(at.at), std::end(at.at), host.dmac);
  }

  [[nodiscard]] report towards_bridge() {
    return {packet_of(udp, wan_mac, gateway_mac, peer, bridged_host).build(),
            ct.get(),
            &ct->ct_general,
            NF_INET_POST_ROUTING,
            IP_CT_ESTABLISHED,
            bridge,
            wan,
            std::nullopt};
  }

  static constexpr endpoint bridged_host = {"192.168.4.2", 5000};
  fake_device bridge{"br0", "02:00:00:00:04:01"};
  fake_device port{"eth2", "02:00:00:00:04:11"};
  scoped_route bridge_route{"192.168.4.0", 24, "0.0.0.0", bridge};
  scoped_neighbour neighbour_{"192.168.4.2", bridge, "02:00:00:00:04:02"};
  ::brc host = {};
  tracked_connection ct{tuple(udp, peer, bridged_host), tuple(udp, bridged_host, peer)};
};

TEST_F(add_to_bridge, needs_the_host_in_its_own_bridge) {
  make_report(towards_bridge());
  EXPECT_EQ(count(), 0);

  ::brc elsewhere = host;
  elsewhere.bridgeID = static_cast<u16>(host.bridgeID + 1);
  ASSERT_EQ(_vok_brc_add(kcih, &elsewhere), 0);
  make_report(towards_bridge());
  EXPECT_EQ(count(), 0);

  ASSERT_EQ(_vok_brc_add(kcih, &host), 0);
  make_report(towards_bridge());
  const ipc_entry* entry = find(peer, bridged_host, udp, 1);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->sendif, port.get());
  ASSERT_NE(entry->brc, nullptr);
  EXPECT_EQ(entry->brc->bridgeID, host.bridgeID);
  EXPECT_EQ(entry->brc->refcnt, 2);

  // A host that has moved since makes the entry stale, but for those who do not ask.
  pass(10);
  host.sendif = wan;
  _vok_brc_update(kcih, &host);
  EXPECT_EQ(find(peer, bridged_host, udp, 1), nullptr);
  EXPECT_EQ(find(peer, bridged_host, udp, 0), entry);

  // The connection keeps the host's entry alive after the bridge has forgotten it.
  ::brc* held = entry->brc;
  _vok_brc_delete(kcih, host.dmac, host.bridgeID);
  EXPECT_EQ(held->refcnt, 1);
}

TEST_F(add_to_bridge, leaves_by_the_vlan_of_the_port) {
  net_device* vlan = vlan_dev_alloc("eth2.30", port, 30, VLAN_FLAG_REORDER_HDR);
  ASSERT_EQ(register_netdevice(vlan), 0);
  host.vlan_dev = vlan;
  host.VLANID = 30;
  host.tag_mode = static_cast<u8>(tag_mode::tag);
  ASSERT_EQ(_vok_brc_add(kcih, &host), 0);
  make_report(towards_bridge());
  const ipc_entry* entry = find(peer, bridged_host, udp);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->sendif, vlan);
  EXPECT_EQ(ct->vok_ext->vlan[0].vid, 30);
  EXPECT_EQ(ct->vok_ext->vlan[0].real_dev, port.get());
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, vlan), 0);
  unregister_netdevice(vlan);
}

}  // namespace
}  // namespace tarvelo::test
