// SPDX-License-Identifier: GPL-2.0-only
//
// Every combination of sides, byte for byte: what comes in from PPPoE, L2TP, PPTP or plain
// Ethernet, tagged or not, and leaves by any of them, over a VLAN or not.
#include <tuple>

#include "module/core/counters.h"
#include "tests/module/ppp_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 inner_precedence = 3;
constexpr u8 tag_priority_in = 5;

struct way {
  const char* name;
  side in;
  side out;
  u32 flags;  ///< wrapping bits of the entry
};

constexpr way ways[] = {
    {"plain_to_plain", side::plain, side::plain, 0},
    {"plain_to_pppoe", side::plain, side::pppoe, 0x10},
    {"plain_to_l2tp", side::plain, side::l2tp, 0x200},
    {"plain_to_pptp", side::plain, side::pptp, 0x80},
    {"pppoe_to_plain", side::pppoe, side::plain, 0x20},
    {"pppoe_to_pppoe", side::pppoe, side::pppoe, 0x40},
    {"pppoe_to_l2tp", side::pppoe, side::l2tp, 0x220},
    {"pppoe_to_pptp", side::pppoe, side::pptp, 0xA0},
    {"l2tp_to_plain", side::l2tp, side::plain, 0x400},
    {"l2tp_to_pppoe", side::l2tp, side::pppoe, 0x410},
    {"pptp_to_plain", side::pptp, side::plain, 0x100},
    {"pptp_to_pppoe", side::pptp, side::pppoe, 0x110},
};

class every_way : public ppp_scene,
                  public testing::WithParamInterface<std::tuple<way, bool, bool>> {
 protected:
  every_way() {
    set_up(kind().in, kind().out, vlan_out());
    connect();
  }

  [[nodiscard]] static const way& kind() { return std::get<0>(GetParam()); }
  [[nodiscard]] static bool tagged() { return std::get<1>(GetParam()); }
  [[nodiscard]] static bool vlan_out() { return std::get<2>(GetParam()); }

  /// A new encapsulation is tagged with the priority the frame came with; a frame that keeps its
  /// encapsulation is tagged at the end, with the priority that was derived from it.
  [[nodiscard]] static u8 tag_priority() {
    const bool rewrapped = kind().flags != 0 && kind().flags != 0x40;
    if (rewrapped) return tagged() ? tag_priority_in : 0;
    return priority();
  }
  [[nodiscard]] static u8 priority() {
    return tagged() && kind().in != side::pppoe ? tag_priority_in : inner_precedence;
  }
  /// Tunnelled packets have no precedence of their own outside.
  [[nodiscard]] static u8 derived_priority() {
    const bool from_outer = !tagged() && (kind().in == side::l2tp || kind().in == side::pptp);
    return from_outer ? 0 : priority();
  }
};

TEST_P(every_way, leaves_as_it_must) {
  ASSERT_NE(entry(), nullptr);
  EXPECT_EQ(entry()->flags & 0x7F0, kind().flags);
  ASSERT_EQ(offer(offered(tagged()), lan), fate::forward);
  const auto sent = wan.take();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_FRAME_EQ(sent[0].data, expected(tag_priority()));
  EXPECT_TRUE(sound_frame(sent[0].data));
  EXPECT_EQ(sent[0].priority, derived_priority());
  EXPECT_EQ(sent[0].network_minus_mac(), static_cast<int>(leaving().build().size()));
  const u32 vlan_flags =
      vlan_out() ? fast_flag::vlan_slot_valid | fast_flag::tag_written : fast_flag::vlan_slot_mask;
  EXPECT_EQ(sent[0].fast_flags & vlan_flags, vlan_out() ? vlan_flags : 0);
  EXPECT_EQ(ct.references(), 1);
  EXPECT_EQ(ip_packet, 1U);
}

TEST_P(every_way, is_accounted_once) {
  ASSERT_EQ(offer(offered(tagged()), lan), fate::forward);
  if (vlan_ != nullptr) {
    EXPECT_EQ(dev_stats(*vlan_).tx_packets, 1U);
  }
  if (in_ppp_ != nullptr && kind().out != side::pppoe) {
    // What is left of the frame when it is stripped: Ethernet, the tag that it will get, IP.
    const rtnl_link_stats64 in = dev_stats(in_ppp_->dev);
    EXPECT_EQ(in.rx_packets, 1U);
    EXPECT_EQ(in.rx_bytes, 54U + (vlan_out() ? 4 : 0));
  }
  const bool tunnel_to_pppoe = (kind().flags & 0x500) != 0 && kind().out == side::pppoe;
  if (out_ppp_ != nullptr) {
    EXPECT_EQ(dev_stats(out_ppp_->dev).tx_packets, tunnel_to_pppoe ? 0U : 1U);
  }
}

/// Whatever comes out is a decision, not an accident.
TEST_P(every_way, survives_every_flipped_bit) {
  const bytes good = offered(tagged(), 4);
  for (std::size_t bit = 0; bit < 8 * good.size(); ++bit) {
    bytes bad = good;
    bad[bit / 8] = static_cast<u8>(bad[bit / 8] ^ 1U << bit % 8);
    (void)offer(bad, lan);
    entry()->flags &= ~ipc_flag::tcp_closing;
  }
  EXPECT_EQ(ct.references(), 1);
  EXPECT_EQ(offer(offered(tagged()), lan), fate::forward);
}

std::string name_of(const testing::TestParamInfo<every_way::ParamType>& row) {
  return std::string(std::get<0>(row.param).name) + (std::get<1>(row.param) ? "_tagged" : "") +
         (std::get<2>(row.param) ? "_into_vlan" : "");
}

INSTANTIATE_TEST_SUITE_P(encapsulation, every_way,
                         testing::Combine(testing::ValuesIn(ways), testing::Bool(),
                                          testing::Bool()),
                         name_of);

class encapsulated : public ppp_scene {
 protected:
  /// The frame that was sent last.
  [[nodiscard]] bytes sent() {
    const auto frames = wan.take();
    return frames.empty() ? bytes() : frames.back().data;
  }
};

TEST_F(encapsulated, pppoe_lengths_are_those_of_the_frame) {
  set_up(side::plain, side::pppoe);
  connect();
  ASSERT_EQ(offer(offered(), lan), fate::forward);
  bytes out = sent();
  EXPECT_EQ(out.size(), 62U);
  EXPECT_EQ(get16(out, 18), 0x002A);
  ASSERT_EQ(offer(with_inner(arriving(), false).pad_to(60).build(), lan), fate::forward);
  out = sent();
  EXPECT_EQ(out.size(), 68U);
  EXPECT_EQ(get16(out, 18), 0x0030);
}

TEST_F(encapsulated, counts_a_relabelled_frame_where_the_kernel_says) {
  set_up(side::pppoe, side::pppoe);
  connect();
  sk_buff* skb = make_skb(offered(), lan);
  skb->fast_flags = fast_flag::received_on_ppp;
  EXPECT_EQ(in_softirq([&] { return kcih->_vok_forward(kcih, skb, 0); }), 0);
  EXPECT_EQ(dev_stats(in_ppp_->dev).rx_packets, 1U);
  EXPECT_EQ(dev_stats(out_ppp_->dev).tx_packets, 0U);
}

TEST_F(encapsulated, shows_vlan_input_only_without_ppp) {
  vlan_device below("lan0.20", lan, 20);
  set_up(side::plain, side::pppoe);
  connect();
  ct->vok_ext->dev = below;
  ASSERT_EQ(offer(offered(true), lan), fate::forward);
  EXPECT_EQ(dev_stats(below).rx_packets, 1U);
  EXPECT_EQ(dev_stats(below).rx_bytes, 62U);
  ASSERT_EQ(offer(offered(false), lan), fate::forward);
  EXPECT_EQ(dev_stats(below).rx_packets, 1U);
}

TEST_F(encapsulated, leaves_vlan_input_to_the_ppp_interface_above) {
  vlan_device below("lan0.20", lan, 20);
  set_up(side::pppoe, side::plain);
  connect();
  ct->vok_ext->dev = below;
  ASSERT_EQ(offer(offered(true), lan), fate::forward);
  EXPECT_EQ(dev_stats(below).rx_packets, 0U);
  EXPECT_EQ(dev_stats(in_ppp_->dev).rx_packets, 1U);
}

/// A slot without a device says nothing: the VLAN device itself gets the frame, to tag it. The one
/// of this test has no driver.
TEST_F(encapsulated, leaves_an_empty_slot_to_the_vlan_device) {
  set_up(side::pppoe, side::plain, true);
  connect();
  ct->vok_ext->vlan[0].real_dev = nullptr;
  EXPECT_EQ(offer(offered(), lan, 0), fate::forward);
  EXPECT_TRUE(wan.sent().empty());
  EXPECT_EQ(dev_stats(*vlan_).tx_packets, 0U);
}

TEST_F(encapsulated, a_tunnel_over_pppoe_leaves_as_ip) {
  set_up(side::plain, side::l2tp);
  std::unique_ptr<ppp_interface> uplink(
      ppp_interface::pppoe("ppp9", wan, upstream_sid, session_mac));
  tunnel_route_.reset();
  scoped_route over_pppoe("192.0.2.1", 32, "0.0.0.0", uplink->dev);
  connect();
  ASSERT_NE(entry(), nullptr);
  EXPECT_EQ(entry()->sendif, uplink->dev.get());
  EXPECT_EQ(mac_text(entry()->dmac), session_mac);
  EXPECT_EQ(mac_text(entry()->smac), wan_mac);
  ASSERT_EQ(offer(offered(), lan), fate::forward);
  const sent_frame& out = uplink->dev.sent().at(0);
  const bytes whole = expected();
  EXPECT_EQ(out.data, bytes(whole.begin() + wire::ethernet_length, whole.end()));
  EXPECT_EQ(out.protocol, wire::htons(wire::ethertype::ipv4));

  in_ppp_.reset(ppp_interface::pppoe("ppp0", lan, inside_sid, host_mac));
  ASSERT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, uplink->dev), 0);
  EXPECT_EQ(entry(), nullptr);
  ct->vok_ext->flags &= ~ct_ext_flag::direction_marks;
  connect();
  EXPECT_EQ(entry(), nullptr) << "no room for a second PPPoE side";
}

}  // namespace
}  // namespace tarvelo::test
