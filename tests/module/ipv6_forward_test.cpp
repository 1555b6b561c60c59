// SPDX-License-Identifier: GPL-2.0-only
//
// What leaves the IPv6 routed path, byte for byte, for every wrapping on either side; and what is
// handed back.
#include <functional>

#include "kernel/if_vlan.h"
#include "kernel/proc_tree.h"
#include "module/core/counters.h"
#include "module/forward/entry.h"
#include "tests/module/ipv6_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;
constexpr u16 in_session = 0x1234;
constexpr u16 out_session = 0x5678;
constexpr u16 in_vlan = 20;
constexpr u16 out_vlan = 7;
constexpr u8 tag_priority = 5;
constexpr u8 traffic_class = 0x6F;
constexpr u8 class_priority = 3;
constexpr u8 second_byte_priority = 7;                   ///< the class ends in the second byte
constexpr const char* access_mac = "02:00:00:00:03:02";  ///< far end of the outer session

/// How frames come in and leave.
struct wrapping {
  bool tagged_in;
  bool pppoe_in;
  bool tagged_out;
  bool pppoe_out;
};

class ipv6_wrapping : public ipv6_scene,
                      public testing::WithParamInterface<std::tuple<bool, bool, bool, bool, bool>> {
 protected:
  static wrapping sides() {
    const auto [a, b, c, d, reply] = GetParam();
    return {a, b, c, d};
  }
  static bool is_reply() { return std::get<4>(GetParam()); }
  static u8 protocol() { return sides().tagged_in ? udp : tcp; }

  static packet finish(packet p) {
    return packet6(std::move(p), protocol(), inside6, peer6).tos(traffic_class).ttl(2).payload(33);
  }
  static packet offered() {
    packet p = ethernet(lan_mac, host_mac);
    if (sides().tagged_in) p.vlan(in_vlan, tag_priority);
    if (sides().pppoe_in) p.pppoe(in_session);
    return finish(p);
  }

  /// The priority that the frame has when it is sent. Of a PPPoE frame the second byte of the IP
  /// header tells it, whatever the version and the tag.
  static u8 final_priority() {
    if (sides().pppoe_in) return second_byte_priority;
    return sides().tagged_in ? tag_priority : class_priority;
  }
  /// A tag written with the encapsulation has the priority of arrival, a later one the final.
  static u8 written_priority() {
    const wrapping w = sides();
    if (w.pppoe_in == w.pppoe_out) return final_priority();
    return w.tagged_in ? tag_priority : 0;
  }
  static packet expected() {
    packet p = ethernet(sides().pppoe_out ? access_mac : gateway_mac, wan_mac);
    if (sides().tagged_out) p.vlan(out_vlan, written_priority());
    if (sides().pppoe_out) p.pppoe(out_session);
    return finish(p);
  }

  [[nodiscard]] report6 reported(const tracked_connection& ct) {
    net_device* input = sides().tagged_in ? vlan_in : lan.get();
    if (sides().pppoe_in) input = line_in;
    report6 r = outbound(ct, protocol());
    r.dev = r.rx_dev = input;
    r.info = is_reply() ? IP_CT_ESTABLISHED_REPLY : IP_CT_ESTABLISHED;
    return r;
  }
  [[nodiscard]] tracked6 connection() const {
    return is_reply() ? tracked6(protocol(), peer6, inside6) : tracked6(protocol(), inside6, peer6);
  }

  vlan_device vlan_in{"lan0.20", lan, in_vlan};
  vlan_device vlan_out{"wan0.7", wan, out_vlan};
  net_device* carrier_out = sides().tagged_out ? static_cast<net_device*>(vlan_out) : wan.get();
  pppoe_line line_in{"ppp0", lan, in_session, host_mac};
  pppoe_line line_out{"ppp1", carrier_out, out_session, access_mac};
  net_device* output = sides().pppoe_out ? static_cast<net_device*>(line_out) : carrier_out;
  scoped_route6 way{"2620::", 16, "::", output};
  scoped_neighbour6 direct{peer6.address, carrier_out, gateway_mac};
};

TEST_P(ipv6_wrapping, leaves_as_it_should) {
  const tracked6 ct = connection();
  ripen6(reported(ct));
  ASSERT_EQ(offer(offered().build(), lan), fate::forward);
  const auto sent = wan.take();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_FRAME_EQ(sent[0].data, expected().build());
  EXPECT_TRUE(sound_frame(sent[0].data));
  const wrapping w = sides();
  EXPECT_EQ(sent[0].network_minus_mac(), 14 + (w.tagged_out ? 4 : 0) + (w.pppoe_out ? 8 : 0));
  EXPECT_EQ(sent[0].priority, final_priority());
  EXPECT_EQ(sent[0].nfct, &ct->ct_general);
  EXPECT_EQ(sent[0].nfctinfo, is_reply() ? IP_CT_ESTABLISHED_REPLY : IP_CT_ESTABLISHED);
  u32 flags = fast_flag::sent_fast | (w.pppoe_in ? fast_flag::pppoe : 0);
  if (w.tagged_out) {
    const u32 slot = u32{is_reply()} << fast_flag::vlan_slot_shift;
    flags |= fast_flag::vlan_slot_valid | fast_flag::tag_written | slot;
  }
  EXPECT_EQ(sent[0].fast_flags, flags);
  EXPECT_EQ(ct.references(), 1);

  EXPECT_EQ(ip_v6_packet, 1U);
  EXPECT_EQ(ethernet_v6_packet, 1U);
  EXPECT_EQ(dev_stats(vlan_out).tx_packets, w.tagged_out ? 1U : 0U);
  EXPECT_EQ(dev_stats(vlan_in).rx_packets, w.tagged_in && !w.pppoe_in ? 1U : 0U);
  EXPECT_EQ(dev_stats(line_in).rx_packets, w.pppoe_in && !w.pppoe_out ? 1U : 0U);
  EXPECT_EQ(dev_stats(line_out).tx_packets, w.pppoe_out ? 1U : 0U);
}

TEST_P(ipv6_wrapping, is_handed_back_at_every_truncation) {
  const tracked6 ct = connection();
  ripen6(reported(ct));
  const bytes whole = offered().build();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_TRUE(is_handed_back(offer(cut, lan))) << length;
  }
  EXPECT_EQ(ct.references(), 1);
  EXPECT_EQ(ip_v6_packet, 0U);
}

/// The longest packet that the output takes, and the least room in front of it.
TEST_P(ipv6_wrapping, needs_room) {
  const tracked6 ct = connection();
  ripen6(reported(ct));
  const wrapping w = sides();
  const auto link = [](bool tagged, bool pppoe) {
    return 14U + (tagged ? 4U : 0U) + (pppoe ? 8U : 0U);
  };
  const u32 before = link(w.tagged_in, w.pppoe_in), after = link(w.tagged_out, w.pppoe_out);
  const u32 growth = after > before ? after - before : 0;
  if (growth > 0) {
    EXPECT_EQ(offer(offered().build(), lan, growth - 1), fate::no_headroom);
  }
  EXPECT_EQ(offer(offered().build(), lan, growth), fate::forward);

  const auto packet_length = static_cast<u32>(offered().build().size()) - before;
  carrier_out->mtu = packet_length + (w.pppoe_out ? 8 : 0);
  EXPECT_EQ(offer(offered().build(), lan), fate::forward);
  --carrier_out->mtu;
  EXPECT_EQ(offer(offered().build(), lan), fate::too_long);
}

TEST_P(ipv6_wrapping, knows_its_session) {
  const tracked6 ct = connection();
  ripen6(reported(ct));
  for (const u16 session : {u16{0xFFFF}, u16{0}, out_session}) {
    packet p = ethernet(lan_mac, host_mac);
    if (sides().tagged_in) p.vlan(in_vlan, tag_priority);
    EXPECT_EQ(offer(finish(p.pppoe(session)).build(), lan),
              sides().pppoe_in ? fate::other_session : fate::encapsulation);
  }
  if (sides().pppoe_in) {
    EXPECT_EQ(offer(finish(ethernet(lan_mac, host_mac)).build(), lan), fate::encapsulation);
  }
}

std::string name_of(const testing::TestParamInfo<ipv6_wrapping::ParamType>& row) {
  const auto [tag_in, ppp_in, tag_out, ppp_out, reply] = row.param;
  std::string name = tag_in ? "tagged" : "untagged";
  if (ppp_in) name += "_pppoe";
  name += tag_out ? "_to_tagged" : "_to_untagged";
  if (ppp_out) name += "_pppoe";
  if (reply) name += "_reply";
  return name;
}

INSTANTIATE_TEST_SUITE_P(all, ipv6_wrapping,
                         testing::Combine(testing::Bool(), testing::Bool(), testing::Bool(),
                                          testing::Bool(), testing::Bool()),
                         name_of);

class ipv6_routed : public ipv6_scene {
 protected:
  ipv6_routed() {
    ripen6(outbound(ct, tcp));
    ripen6(outbound(datagrams, udp));
  }

  [[nodiscard]] static packet link() { return ethernet(lan_mac, host_mac); }
  [[nodiscard]] static packet segment() { return packet6(link(), tcp, inside6, peer6); }
  [[nodiscard]] static packet datagram() { return packet6(link(), udp, inside6, peer6); }

  tracked6 ct{tcp, inside6, peer6};
  tracked6 datagrams{udp, inside6, peer6};
};

TEST_F(ipv6_routed, starts_with_the_twentieth_report) {
  ct->vok_ext->add_calls = ripe - 1;
  EXPECT_EQ(offer(segment().build(), lan), fate::not_ripe);
  make_report(outbound(ct, tcp));
  EXPECT_EQ(offer(segment().build(), lan), fate::forward);
  // Nothing is translated, so what would be translated twice does not matter.
  ct->vok_ext->double_nat = 1;
  EXPECT_EQ(offer(segment().build(), lan), fate::forward);
}

TEST_F(ipv6_routed, keeps_connections_for_fixed_times) {
  nf_ct_set_established_timeout(tcp, 7777);
  pass(1);
  ASSERT_EQ(offer(segment().build(), lan), fate::forward);
  EXPECT_EQ(nf_ct_expires(ct.get()), u32{jiffies} + 180000);
  ASSERT_EQ(offer(datagram().build(), lan), fate::forward);
  EXPECT_EQ(nf_ct_expires(datagrams.get()), u32{jiffies} + 180000);
  datagrams->status &= ~IPS_SEEN_REPLY;
  ASSERT_EQ(offer(datagram().build(), lan), fate::forward);
  EXPECT_EQ(nf_ct_expires(datagrams.get()), u32{jiffies} + 30000);
  pass(999);
  ASSERT_EQ(offer(datagram().build(), lan), fate::forward);
  EXPECT_EQ(nf_ct_expires(datagrams.get()), u32{jiffies} - 999 + 30000);
}

TEST_F(ipv6_routed, counters_begin_anew_after_32_bits) {
  constexpr std::string_view line = "ethernet_packet=4294967295,ip_v6_packet 4294967295";
  ASSERT_EQ(proc::write_all("vok/statistics_forward_ipv6_packet_num", line),
            static_cast<ssize_type>(line.size()));
  EXPECT_EQ(control_text("statistics_forward_ipv6_packet_num"),
            "ethernet_v6_packet=4294967295, ip_v6_packet=4294967295\n");
  ASSERT_EQ(offer(segment().build(), lan), fate::forward);
  EXPECT_EQ(control_text("statistics_forward_ipv6_packet_num"),
            "ethernet_v6_packet=0, ip_v6_packet=0\n");
}

TEST_F(ipv6_routed, drops_when_the_output_device_is_down) {
  wan.down();
  EXPECT_EQ(offer(segment().build(), lan), fate::drop);
  EXPECT_EQ(ip_v6_packet, 0U);
  wan.up();
  wan.set_mode(driver_mode::refuse);
  EXPECT_EQ(offer(segment().build(), lan), fate::forward);
  EXPECT_EQ(ip_v6_packet, 1U);
  EXPECT_EQ(ct.references(), 1);
}

TEST_F(ipv6_routed, serves_point_to_point_devices_on_either_side) {
  fake_device tun("tun0", "00:00:00:00:00:00", ARPHRD_NONE);
  scoped_neighbour6 far_end("::", tun, "00:00:00:00:00:00", NUD_NOARP);
  scoped_route6 way("2001:db8:a::", 48, "::", tun);
  const endpoint remote = {"2001:db8:a::5", 7000};
  tracked6 plain(udp, inside6, remote);
  report6 out = outbound(plain, udp);
  out.frame = packet6(link(), udp, inside6, remote).build();
  report6 back = inbound(plain, udp);
  back.frame = packet6(link(), udp, remote, inside6).build();
  back.dev = back.rx_dev = tun;
  ripen6(out);
  ripen6(back);

  ASSERT_EQ(offer(packet6(link(), udp, inside6, remote).payload(20).build(), lan), fate::forward);
  EXPECT_EQ(tun.sent().at(0).data, packet6({}, udp, inside6, remote).payload(20).build());
  EXPECT_EQ(tun.sent().at(0).protocol, wire::htons(wire::ethertype::ipv6));

  const bytes bare = packet6({}, udp, remote, inside6).payload(20).build();
  EXPECT_EQ(offer(bare, tun, 31), fate::no_headroom);
  ASSERT_EQ(offer(bare, tun, 32), fate::forward);
  EXPECT_FRAME_EQ(lan.sent().at(0).data,
                  packet6(ethernet(host_mac, lan_mac), udp, remote, inside6).payload(20).build());
}

struct handed_back_row {
  const char* name;
  packet frame;
  fate reason;
  u32 counted;  ///< in `ethernet_v6_packet`
};

TEST_F(ipv6_routed, hands_back_by_what_the_frame_is) {
  const auto between = [](const char* source, const char* destination) {
    return packet6(link(), tcp, {source, 40000}, {destination, 443});
  };
  const auto fragment = [](u16 word, u8 protocol = udp) {
    return fragment6(link(), 1, word, inside6, peer6, protocol).udp(40000, 443).payload(8);
  };
  const handed_back_row rows[] = {
      {"link-local source", between("fe80::1", "2620::7"), fate::link_local, 0},
      {"link-local destination", between("2001:db8:1::2", "fe80::2"), fate::link_local, 0},
      {"group", between("2001:db8:1::2", "ff0e::1"), fate::group_address, 0},
      {"group of the link", between("2001:db8:1::2", "ff02::fb"), fate::group_address, 0},
      {"version 4", segment().version_ihl(0x46), fate::version_mismatch, 0},
      {"syn", segment().flags(wire::tcp_flag::syn), fate::tcp_syn, 1},
      {"icmpv6", segment().type(wire::ip_protocol::icmpv6), fate::other_protocol, 1},
      {"hop-by-hop options", segment().type(0), fate::other_protocol, 1},
      {"routing header", segment().type(43), fate::other_protocol, 1},
      {"longer than the frame", segment().total_length(21), fate::truncated, 1},
      {"too short for tcp", segment().payload(20).total_length(19), fate::truncated, 1},
      {"too short for udp", datagram().payload(20).total_length(7), fate::truncated, 1},
      {"fragment of tcp", fragment(1, tcp), fate::other_protocol, 1},
      {"fragment that is all", fragment(0), fate::fragment, 1},
      {"middle fragment, unknown", fragment(8 | 1), fate::fragment, 1},
      {"last fragment, unknown", fragment(8), fate::fragment, 1},
      {"first fragment without ports", fragment6(link(), 1, 1, inside6, peer6).payload(7),
       fate::truncated, 1},
      {"other port", packet6(link(), tcp, {inside6.address, 1}, peer6), fate::no_entry, 1},
      {"other direction", packet6(link(), tcp, peer6, inside6), fate::no_entry, 1},
  };
  for (const handed_back_row& row : rows) {
    SCOPED_TRACE(row.name);
    ethernet_v6_packet = 0;
    EXPECT_EQ(offer(row.frame.build(), lan), row.reason);
    EXPECT_EQ(ethernet_v6_packet, row.counted);
  }
  EXPECT_EQ(ip_v6_packet, 0U);
  EXPECT_EQ(ct.references(), 1);
}

TEST_F(ipv6_routed, hands_back_by_the_state_of_the_connection) {
  struct {
    const char* name;
    std::function<void(nf_conn*)> change;
    fate reason;
  } const rows[] = {
      {"not confirmed", [](nf_conn* c) { c->status = IPS_SEEN_REPLY; }, fate::connection_gone},
      {"dying", [](nf_conn* c) { c->status |= IPS_DYING; }, fate::connection_gone},
      {"no record", [](nf_conn* c) { c->vok_ext = nullptr; }, fate::no_record},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    nf_conn* c = ct.get();
    vok_ct_ext* ext = c->vok_ext;
    const u32 status = c->status;
    row.change(c);
    EXPECT_EQ(offer(segment().build(), lan), row.reason);
    c->vok_ext = ext;
    c->status = status;
    find6(tcp, inside6, peer6)->flags = 0;
    EXPECT_EQ(offer(segment().build(), lan), fate::forward);
    EXPECT_EQ(ct.references(), 1);
  }
  for (const u8 flags : {wire::tcp_flag::fin, wire::tcp_flag::rst}) {
    EXPECT_EQ(offer(segment().flags(flags).build(), lan), fate::tcp_ending);
    EXPECT_EQ(offer(segment().build(), lan), fate::tcp_ending);
    find6(tcp, inside6, peer6)->flags = 0;
  }
}

constexpr u8 hook_family = 10;

/// What a hook of a test answers and has seen.
struct {
  unsigned verdict;
  int calls;
  int header_length;  ///< network minus MAC header
} hook_record;

unsigned record_call(unsigned, u8 pf, sk_buff* skb) {
  EXPECT_EQ(pf, hook_family);
  ++hook_record.calls;
  hook_record.header_length = skb->network_header - skb->mac_header;
  return hook_record.verdict;
}

TEST_F(ipv6_routed, asks_the_hooks_of_its_family) {
  struct {
    vok_hook_point point;
    unsigned verdict;
    fate result;
  } const rows[] = {
      {VOK_HOOK_IP_PRE_ROUTING, VOK_ACCEPT, fate::forward},
      {VOK_HOOK_IP_PRE_ROUTING, VOK_DIVERT, fate::hook_diverted},
      {VOK_HOOK_IP_PRE_ROUTING, VOK_DROP, fate::drop},
      {VOK_HOOK_IP_PRE_ROUTING, 4, fate::hook_error},
      {VOK_HOOK_IP_POST_ROUTING, VOK_ACCEPT, fate::forward},
      {VOK_HOOK_IP_POST_ROUTING, VOK_DIVERT, fate::hook_diverted},
      {VOK_HOOK_IP_POST_ROUTING, VOK_DROP, fate::drop},
      {VOK_HOOK_IP_POST_ROUTING, 4, fate::hook_error},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.point << " " << row.verdict);
    hook_record = {row.verdict, 0, 0};
    vok_hook_ops ops = {{}, record_call, nullptr, hook_family, static_cast<u8>(row.point),
                        0,  "tester"};
    ASSERT_EQ(kcih->_vok_register_hook(kcih, &ops), 0);
    EXPECT_EQ(offer(segment().build(), lan), row.result);
    EXPECT_EQ(hook_record.calls, 1);
    EXPECT_EQ(hook_record.header_length, int{wire::ethernet_length});
    EXPECT_EQ(offer(packet_of(tcp, lan_mac, host_mac, inside, peer).build(), lan), fate::no_entry);
    EXPECT_EQ(hook_record.calls, 1) << "asked for IPv4";
    EXPECT_EQ(kcih->_vok_unregister_hook(kcih, &ops), 0);
    synchronize_rcu();
    EXPECT_EQ(ct.references(), 1);
  }
  EXPECT_EQ(log.take_text(),
            (std::vector<std::string>{"the VOK_HOOK_IP_PRE_ROUTING return value is error\n",
                                      "the VOK_HOOK_IP_POST_ROUTING return value is error\n"}));
}

/// Every bit of the headers, one at a time: whatever comes out is a decision, not an accident.
TEST_F(ipv6_routed, survives_every_flipped_bit) {
  const packet first = fragment6(link(), 1, 1, inside6, peer6).udp(40000, 443).payload(8);
  for (const packet& base : {segment().payload(4), datagram().payload(60), first}) {
    const bytes good = base.build();
    for (std::size_t bit = 0; bit < 8 * good.size(); ++bit) {
      bytes bad = good;
      bad[bit / 8] = static_cast<u8>(bad[bit / 8] ^ 1U << bit % 8);
      (void)offer(bad, lan);
      if (ipc_v6_entry* e = find6(tcp, inside6, peer6)) e->flags = 0;
    }
  }
  EXPECT_EQ(ct.references(), 1);
  EXPECT_EQ(offer(segment().build(), lan), fate::forward);
}

}  // namespace
}  // namespace tarvelo::test
