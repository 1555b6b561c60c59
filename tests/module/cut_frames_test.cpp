// SPDX-License-Identifier: GPL-2.0-only
//
// Frames with less in them than they say. Each is one that the fast path forwards, and then again
// cut at every byte; cut behind every byte of what is in line; with every shorter length in its
// outermost IP header, the rest being padding or cut off as well; and cut by a hook. Nothing of
// that may leave, and no byte behind the cut may be read: test buffers end where their data ends.
#include "module/brc/table.h"
#include "module/forward/entry.h"
#include "tests/module/ipv6_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;
constexpr u32 everything = ~0U;

/// What the hook below leaves of a frame.
u32 hook_leaves = everything;

unsigned cut(unsigned, u8, sk_buff* skb) {
  if (skb->len > hook_leaves) skb->len = hook_leaves;
  return VOK_ACCEPT;
}

/// The buffer as a driver leaves it that puts only the first `linear` bytes in line; nothing of it
/// reads the rest, which is there as well.
fate offer_paged(const bytes& frame, net_device* dev, u32 linear) {
  sk_buff* skb = make_skb(frame, dev);
  skb->data_len = skb->len - linear;
  return in_softirq([&] {
    const fate result = forward_frame(kcih, skb);
    if (is_handed_back(result)) kfree_skb(skb);
    return result;
  });
}

fate offer_cut_by_hook(const bytes& frame, net_device* dev, u32 left) {
  sk_buff* skb = make_skb(frame, dev);
  hook_leaves = left;
  const fate result = in_softirq([&] { return forward_frame(kcih, skb); });
  hook_leaves = everything;
  if (is_handed_back(result)) kfree_skb(skb);
  return result;
}

/// `headers` is the offset behind the last header that the fast path needs.
void expect_cuts_back(const bytes& frame, net_device* dev, u32 headers) {
  const auto whole = static_cast<u32>(frame.size());
  EXPECT_EQ(offer(frame, dev), fate::forward);
  for (u32 length = 0; length < whole; ++length) {
    EXPECT_TRUE(is_handed_back(offer({frame.data(), frame.data() + length}, dev))) << length;
  }
  for (u32 linear = 0; linear < headers; ++linear)
    EXPECT_TRUE(is_handed_back(offer_paged(frame, dev, linear))) << linear << " in line";
  EXPECT_EQ(offer_paged(frame, dev, whole), fate::forward);
}

/// The big-endian word at `at` says less than there is behind `counted_from`, and then no more than
/// it says is there.
void expect_short_lengths_back(const bytes& frame, net_device* dev, u32 at, u32 counted_from) {
  const u32 whole = static_cast<u32>(frame[at]) << 8 | frame[at + 1];
  for (u32 length = 0; length < whole; ++length) {
    bytes claims = frame;
    claims[at] = static_cast<u8>(length >> 8);
    claims[at + 1] = static_cast<u8>(length);
    EXPECT_TRUE(is_handed_back(offer(claims, dev))) << length << " in the header";
    claims.resize(counted_from + length);
    EXPECT_TRUE(is_handed_back(offer(claims, dev))) << length << " in header and frame";
  }
}

constexpr u32 total_length_at = 2;    ///< in an IPv4 header
constexpr u32 payload_length_at = 4;  ///< in an IPv6 header

class cut_frames : public ppp_scene {
 protected:
  tracked_connection datagrams{tuple(udp, inside, peer), tuple(udp, peer, translated)};
};

struct plain_row {
  const char* name;
  packet frame;
  u32 headers;
  u32 ip;  ///< offset of the IP header
};

TEST_F(cut_frames, of_a_plain_connection) {
  ripen(source_nat(ct, tcp, false));
  ripen(source_nat(datagrams, udp, false));
  const bytes options(20, 1);
  const auto tagged = [](packet link) {
    return link.vlan(9, 3).ipv4(inside.address, peer.address).udp(inside.port, peer.port);
  };
  const plain_row rows[] = {
      {"tcp", packet_of(tcp, lan_mac, host_mac, inside, peer), 54, 14},
      {"udp", packet_of(udp, lan_mac, host_mac, inside, peer), 42, 14},
      {"options", packet_of(udp, lan_mac, host_mac, inside, peer).options(options), 62, 14},
      {"tcp, options", packet_of(tcp, lan_mac, host_mac, inside, peer).options(options), 74, 14},
      {"tagged", tagged(packet().eth(lan_mac, host_mac)), 46, 18},
      {"first fragment", packet_of(udp, lan_mac, host_mac, inside, peer).fragment(0, true), 42, 14},
  };
  for (const plain_row& row : rows) {
    SCOPED_TRACE(row.name);
    const bytes frame = row.frame.build();
    expect_cuts_back(frame, lan, row.headers);
    expect_short_lengths_back(frame, lan, row.ip + total_length_at, row.ip);
  }
}

/// What comes in by a session or tunnel, with a tag in front and without.
class cut_wrapped_frames : public cut_frames,
                           public testing::WithParamInterface<std::tuple<side, bool>> {};

TEST_P(cut_wrapped_frames, of_a_wrapped_connection) {
  const auto [in, tagged] = GetParam();
  set_up(in, side::plain);
  connect();
  const bytes frame = offered(tagged, 20);
  const u32 link = tagged ? wire::tagged_ethernet_length : wire::ethernet_length;
  const u32 ip = in == side::pppoe ? link + wire::pppoe_length : link;
  expect_cuts_back(frame, lan, static_cast<u32>(frame.size()) - 20);
  if (in == side::pppoe) {
    // The last 20 bytes may be padding.
    bytes cut_short = frame;
    cut_short[ip + total_length_at + 1] -= 20;
    expect_short_lengths_back(cut_short, lan, ip + total_length_at, ip);
  } else {
    expect_short_lengths_back(frame, lan, ip + total_length_at, ip);
  }
}

INSTANTIATE_TEST_SUITE_P(all, cut_wrapped_frames,
                         testing::Combine(testing::Values(side::pppoe, side::l2tp, side::pptp),
                                          testing::Bool()));

/// GRE and L2TP headers behind an outer header that has all the options it can have, in a frame
/// that is just long enough to be looked into and a packet that ends at each of their bytes.
TEST_F(cut_frames, of_a_tunnel_behind_options) {
  set_up(side::pptp, side::plain);
  connect();
  const bytes options(40, 1);
  constexpr u32 outer_length = wire::ipv4_min_length + 40;
  constexpr u32 looked_into = 88;
  const struct {
    u8 protocol;
    bytes headers;
  } rows[] = {
      {wire::ip_protocol::gre,
       {0x30, 0x81, 0x88, 0x0B, 0, 0, 0, 10, 0, 0, 0, 1, 0, 0, 0, 0, 0xFF, 0x03, 0x00, 0x21}},
      {udp, {0x06, 0xA6, 0x06, 0xA5, 0, 0, 0, 0, 0x48, 0x02, 0,    30,
             0,    10,   0,    12,   0, 0, 0, 0, 0xFF, 0x03, 0x00, 0x21}},
  };
  for (const auto& row : rows) {
    for (std::size_t behind = 0; behind <= row.headers.size(); ++behind) {
      bytes frame = packet()
                        .eth(lan_mac, host_mac)
                        .ipv4(inside_tunnel_remote.address, inside_tunnel_local.address)
                        .options(options)
                        .type(row.protocol)
                        .total_length(static_cast<u16>(outer_length + behind))
                        .raw({row.headers.data(), behind})
                        .build();
      frame.resize(std::max<std::size_t>(frame.size(), looked_into));
      EXPECT_TRUE(is_handed_back(offer(frame, lan))) << int{row.protocol} << " " << behind;
    }
  }
}

class cut_frames_v6 : public ipv6_scene {};

TEST_F(cut_frames_v6, of_a_connection) {
  const tracked6 segments(tcp, inside6, peer6);
  const tracked6 datagrams(udp, inside6, peer6);
  ripen6(outbound(segments, tcp));
  ripen6(outbound(datagrams, udp));
  const packet link = ethernet(lan_mac, host_mac);
  const plain_row rows[] = {
      {"tcp", packet6(link, tcp, inside6, peer6), 74, 14},
      {"udp", packet6(link, udp, inside6, peer6), 62, 14},
      {"tagged", packet6(packet(link).vlan(9, 3), udp, inside6, peer6), 66, 18},
      {"first fragment", fragment6(link, 7, 1, inside6, peer6).udp(inside6.port, peer6.port), 70,
       14},
  };
  for (const plain_row& row : rows) {
    SCOPED_TRACE(row.name);
    bytes frame = row.frame.build();
    expect_cuts_back(frame, lan, row.headers);
    expect_short_lengths_back(frame, lan, row.ip + payload_length_at, row.ip + wire::ipv6_length);
    // What the type says and what the packet is.
    frame[row.ip - 2] = wire::ethertype::ipv4 >> 8;
    frame[row.ip - 1] = wire::ethertype::ipv4 & 0xFF;
    EXPECT_EQ(offer(frame, lan), fate::version_mismatch);
  }
}

/// Routed behind the last test ahead of the rewrite; bridged ahead of the look at the tag.
TEST_F(cut_frames_v6, by_a_hook) {
  const tracked_connection ct(tuple(tcp, inside, peer), tuple(tcp, peer, translated));
  const tracked6 segments(tcp, inside6, peer6);
  ripen(source_nat(ct, tcp, false));
  ripen6(outbound(segments, tcp));
  ::brc cached = {};
  cached.bridgeID = 9;
  cached.VLANID = 30;
  cached.tag_mode = static_cast<u8>(tag_mode::untag);
  for (const auto& [at, port] :
       {std::pair{"02:00:00:00:05:01", &lan}, {"02:00:00:00:05:02", &wan}}) {
    const mac address = mac_of(at);
    std::copy(std::begin(address.at), std::end(address.at), cached.dmac);
    cached.sendif = *port;
    ASSERT_EQ(_vok_brc_add(kcih, &cached), 0);
  }
  const packet bridged = ethernet("02:00:00:00:05:02", "02:00:00:00:05:01").vlan(30, 3);
  struct {
    const char* name;
    vok_hook_point point;
    u8 family;
    packet frame;
    u32 needed;
  } const rows[] = {
      {"routed", VOK_HOOK_IP_POST_ROUTING, 2, packet_of(tcp, lan_mac, host_mac, inside, peer), 54},
      {"routed, ahead", VOK_HOOK_IP_PRE_ROUTING, 2, packet_of(tcp, lan_mac, host_mac, inside, peer),
       54},
      {"ipv6", VOK_HOOK_IP_POST_ROUTING, 10,
       packet6(ethernet(lan_mac, host_mac), tcp, inside6, peer6), 74},
      {"bridged", VOK_HOOK_BRIDGE_ROUTING, 2,
       packet(bridged).ipv4("10.0.0.1", "10.0.0.2").udp(1, 2), 18},
      {"bridged session", VOK_HOOK_BRIDGE_ROUTING, 2,
       packet(bridged).pppoe(inside_sid).ipv4("10.0.0.1", "10.0.0.2").udp(1, 2), 26},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    vok_hook_ops ops = {{}, &cut, nullptr, row.family, row.point, 0, "cutter"};
    ASSERT_EQ(kcih->_vok_register_hook(kcih, &ops), 0);
    const bytes frame = row.frame.build();
    for (u32 left = 0; left < row.needed; ++left)
      EXPECT_TRUE(is_handed_back(offer_cut_by_hook(frame, lan, left))) << left;
    EXPECT_EQ(offer_cut_by_hook(frame, lan, everything), fate::forward);
    ASSERT_EQ(kcih->_vok_unregister_hook(kcih, &ops), 0);
    synchronize_rcu();
  }
}

}  // namespace
}  // namespace tarvelo::test
