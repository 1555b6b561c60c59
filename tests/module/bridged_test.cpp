// SPDX-License-Identifier: GPL-2.0-only
//
// Frames between two cached hosts: tag treatment on the wire, and what keeps a frame from leaving.
#include "module/brc/table.h"
#include "module/core/counters.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr const char* sender_mac = "02:00:00:00:05:01";
constexpr const char* receiver_mac = "02:00:00:00:05:02";

class bridged : public module_scene {
 protected:
  ::brc* cache(const char* address, net_device* port, tag_mode mode, u16 vid, u16 bridge = 9) {
    ::brc e = {};
    const mac at = mac_of(address);
    std::copy(std::begin(at.at), std::end(at.at), e.dmac);
    e.bridgeID = bridge;
    e.VLANID = vid;
    e.sendif = port;
    e.tag_mode = static_cast<u8>(mode);
    EXPECT_EQ(_vok_brc_add(kcih, &e), 0);
    return kcih->_vok_brc_lkup_brid(kcih, e.dmac, bridge);
  }

  [[nodiscard]] static packet link() { return packet().eth(receiver_mac, sender_mac); }
  [[nodiscard]] static packet ip(packet p) {
    return p.ipv4("10.0.0.1", "10.0.0.2").tos(0xA0).udp(1, 2).payload(30);
  }

  fake_device& in = lan;
  fake_device& out = wan;
};

struct tag_row {
  const char* name;
  u16 sender_vid;
  tag_mode receiver_mode;
  packet offered;
  packet expected;
  int l3;
};

TEST_F(bridged, treats_the_tag_as_the_receiver_wants_it) {
  const auto six = [](packet p) { return p.ipv6("2001:db8::1", "2001:db8::2").tcp(1, 2); };
  const auto session = [](packet p) {
    return p.pppoe(0x1234).ipv4("10.0.0.1", "10.0.0.2").tos(0xA0).tcp(1, 2);
  };
  const tag_row rows[] = {
      {"plain", 0, tag_mode::untag, ip(link()), ip(link()), 14},
      {"plain ipv6", 0, tag_mode::untag, six(link()), six(link()), 14},
      {"plain pppoe", 0, tag_mode::untag, session(link()), session(link()), 22},
      {"insert", 0, tag_mode::tag, ip(link()), ip(link().vlan(7, 5)), 18},
      {"insert ipv6", 0, tag_mode::tag, six(link()), six(link().vlan(7, 0)), 18},
      {"insert pppoe", 0, tag_mode::tag, session(link()), session(link().vlan(7, 5)), 26},
      {"replace", 30, tag_mode::tag, ip(link().vlan(30, 3)), ip(link().vlan(7, 3)), 18},
      {"remove", 30, tag_mode::untag, ip(link().vlan(30, 3)), ip(link()), 14},
      {"remove pppoe", 30, tag_mode::untag, session(link().vlan(30, 3)), session(link()), 22},
  };
  for (const tag_row& row : rows) {
    SCOPED_TRACE(row.name);
    ::brc* sender = cache(sender_mac, in, tag_mode::untag, row.sender_vid);
    cache(receiver_mac, out, row.receiver_mode, 7);
    bridge_packet = 0;
    pass(3);
    EXPECT_EQ(offer(row.offered.build(), in), fate::forward);
    const auto sent = out.take();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_FRAME_EQ(sent[0].data, row.expected.build());
    EXPECT_EQ(sent[0].network_minus_mac(), row.l3);
    EXPECT_EQ(sent[0].fast_flags & fast_flag::sent_fast, fast_flag::sent_fast);
    EXPECT_EQ(sender->last_seen, u32{jiffies});
    EXPECT_EQ(bridge_packet, 1U);
    _vok_brc_delete(kcih, mac_of(sender_mac).at, 9);
    _vok_brc_delete(kcih, mac_of(receiver_mac).at, 9);
  }
}

TEST_F(bridged, counters_begin_anew_after_32_bits) {
  cache(sender_mac, in, tag_mode::untag, 0);
  cache(receiver_mac, out, tag_mode::untag, 0);
  ethernet_packet = bridge_packet = 0xFFFFFFFF;
  ASSERT_EQ(offer(ip(link()).build(), in), fate::forward);
  EXPECT_EQ(control_text("statistics_info"),
            "ethernet_packet=0,bridge_packet=0,bridge_pool_packet=0,ip_packet=0,"
            "ip_pool_packet=0\n");
}

TEST_F(bridged, stays_away_from_what_it_should_not_carry) {
  ::brc* sender = cache(sender_mac, in, tag_mode::untag, 0);
  ::brc* receiver = cache(receiver_mac, out, tag_mode::tag, 7);
  const bytes frame = ip(link()).build();
  EXPECT_EQ(offer(frame, in), fate::forward);
  EXPECT_EQ(offer(frame, in, 3), fate::no_headroom);
  EXPECT_EQ(offer(frame, in, 4), fate::forward);

  kcih->portal_check = 1;
  EXPECT_EQ(offer(frame, in), fate::portal_closed);
  sender->portal = 1;
  EXPECT_EQ(offer(frame, in), fate::forward);

  out->mtu = static_cast<u32>(frame.size()) - wire::ethernet_length;
  EXPECT_EQ(offer(frame, in), fate::forward) << "the tag is not part of the MTU";
  --out->mtu;
  EXPECT_EQ(offer(frame, in), fate::too_long);
  out->mtu = 1500;

  receiver->tag_mode = 0;
  EXPECT_EQ(offer(frame, in), fate::unknown_tag_mode);
  receiver->tag_mode = static_cast<u8>(tag_mode::untag);
  receiver->sendif = in;
  EXPECT_EQ(offer(frame, in), fate::same_device);
}

TEST_F(bridged, needs_both_ends_in_one_bridge) {
  cache(sender_mac, in, tag_mode::untag, 0, 9);
  const bytes frame = ip(link()).build();
  EXPECT_EQ(offer(frame, in), fate::no_entry);
  cache(receiver_mac, out, tag_mode::untag, 0, 10);
  EXPECT_EQ(offer(frame, in), fate::no_entry);
  cache(receiver_mac, out, tag_mode::untag, 0, 9);
  EXPECT_EQ(offer(frame, in), fate::forward);
  EXPECT_EQ(offer(ip(link().vlan(30)).build(), in), fate::no_entry)
      << "in a VLAN the sender is another one";
  EXPECT_EQ(bridge_packet, 1U);
}

TEST_F(bridged, frees_what_the_driver_refuses) {
  cache(sender_mac, in, tag_mode::untag, 0);
  cache(receiver_mac, out, tag_mode::untag, 0);
  out.set_mode(driver_mode::refuse);
  EXPECT_EQ(offer(ip(link()).build(), in), fate::forward);
  EXPECT_EQ(bridge_packet, 1U);
}

}  // namespace
}  // namespace tarvelo::test
