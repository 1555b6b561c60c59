// SPDX-License-Identifier: GPL-2.0-only
//
// Fragmented UDP on the routed path: in every order, with the cache full, with the wrong ports, and
// refused by a hook.
#include <algorithm>

#include "module/fragcache/ipv4.h"
#include "tests/module/ppp_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 udp = wire::ip_protocol::udp;
constexpr std::size_t datagram_payload = 1200;
constexpr u16 first_end = 512, middle_end = 1024;

unsigned drop(unsigned, u8, sk_buff*) {
  return VOK_DROP;
}
unsigned divert(unsigned, u8, sk_buff*) {
  return VOK_DIVERT;
}

class fragments : public ppp_scene {
 protected:
  fragments() {
    set_up(side::plain, side::plain);
    ripen(source_nat(datagrams, udp, false));
  }

  /// The datagram in three pieces, as it comes or translated.
  [[nodiscard]] static std::vector<bytes> pieces(bool is_translated, u16 id = 0x1234) {
    const endpoint from = is_translated ? translated : inside;
    const auto with_link = [&](const bytes& data, u16 offset, bool more) {
      packet p =
          is_translated ? packet().eth(gateway_mac, wan_mac) : packet().eth(lan_mac, host_mac);
      p.ipv4(from.address, peer.address).type(udp).id(id).fragment(offset, more);
      return p.raw(data).build();
    };
    bytes whole = packet()
                      .ipv4(from.address, peer.address)
                      .udp(from.port, peer.port)
                      .payload(datagram_payload)
                      .build();
    whole.erase(whole.begin(), whole.begin() + wire::ipv4_min_length);
    const auto part = [&](u16 begin, std::size_t end) {
      return bytes(whole.begin() + begin, whole.begin() + static_cast<std::ptrdiff_t>(end));
    };
    return {with_link(part(0, first_end), 0, true),
            with_link(part(first_end, middle_end), first_end, true),
            with_link(part(middle_end, whole.size()), middle_end, false)};
  }
  [[nodiscard]] static bool is_recorded(u16 id = 0x1234) {
    return in_softirq([id] {
      return find_fragEntry(wire::htons(id), ip4(inside.address), ip4(peer.address), udp) !=
             nullptr;
    });
  }
  [[nodiscard]] static u32 free_records() {
    u32 count = 0;
    for (const fragEntry* e = udp_cache_list_free.first; e != nullptr; e = e->free_link.next)
      ++count;
    return count;
  }

  tracked_connection datagrams{tuple(udp, inside, peer), tuple(udp, peer, translated)};
};

TEST_F(fragments, follow_the_first_in_every_order) {
  const std::vector<bytes> in = pieces(false), out = pieces(true);
  std::vector<int> order = {0, 1, 2};
  do {
    SCOPED_TRACE(testing::PrintToString(order));
    bool first_seen = false, last_seen = false;
    for (const int i : order) {
      const bool passes = i == 0 || (first_seen && !last_seen);
      EXPECT_EQ(offer(in[i], lan), passes ? fate::forward : fate::fragment);
      const auto sent = wan.take();
      ASSERT_EQ(sent.size(), passes ? 1U : 0U);
      if (passes) {
        EXPECT_FRAME_EQ(sent[0].data, out[i]);
      }
      first_seen = first_seen || i == 0;
      last_seen = first_seen && i == 2;
    }
    pass(10000);  // what was left recorded expires
    EXPECT_FALSE(is_recorded());
    ripen(source_nat(datagrams, udp, false));
  } while (std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(free_records(), 64U);
}

TEST_F(fragments, record_a_repeated_first_once) {
  const std::vector<bytes> in = pieces(false);
  EXPECT_EQ(offer(in[0], lan), fate::forward);
  EXPECT_EQ(offer(in[0], lan), fate::forward);
  EXPECT_EQ(free_records(), 63U);

  // Another flow's datagram under the same identity would be mixed up with this one.
  tracked_connection other(tuple(udp, {inside.address, 40001}, peer),
                           tuple(udp, peer, {translated.address, 61001}));
  report r = source_nat(other, udp, false);
  r.frame = packet_of(udp, lan_mac, host_mac, {inside.address, 40001}, peer).build();
  ripen(r);
  bytes stranger = in[0];
  put16(stranger, 34, 40001);
  EXPECT_EQ(offer(stranger, lan), fate::fragment);
  EXPECT_EQ(offer(in[2], lan), fate::forward);
  EXPECT_FALSE(is_recorded());
  EXPECT_EQ(offer(stranger, lan), fate::forward);
}

TEST_F(fragments, go_back_when_there_is_no_room_to_record_them) {
  for (u16 id = 0; id < 64; ++id)
    EXPECT_EQ(offer(pieces(false, id)[0], lan), fate::forward);
  EXPECT_EQ(offer(pieces(false, 64)[0], lan), fate::fragments_full);
  EXPECT_EQ(offer(pieces(false, 7)[2], lan), fate::forward);
  EXPECT_EQ(offer(pieces(false, 64)[0], lan), fate::forward);
}

TEST_F(fragments, take_the_record_back_when_a_hook_refuses) {
  for (const auto& [hook, result] :
       {std::pair(&drop, fate::drop), std::pair(&divert, fate::hook_diverted)}) {
    vok_hook_ops ops = {};
    ops.hook = hook;
    ops.pf = 2;
    ops.hooknum = VOK_HOOK_IP_POST_ROUTING;
    ASSERT_EQ(kcih->_vok_register_hook(kcih, &ops), 0);
    EXPECT_EQ(offer(pieces(false)[0], lan), result);
    EXPECT_FALSE(is_recorded());
    ASSERT_EQ(kcih->_vok_unregister_hook(kcih, &ops), 0);
  }
}

TEST_F(fragments, are_recorded_only_after_all_other_tests) {
  wan->mtu = 500;
  EXPECT_EQ(offer(pieces(false)[0], lan), fate::too_long);
  wan->mtu = 1500;
  datagrams->vok_ext->add_calls = 19;
  EXPECT_EQ(offer(pieces(false)[0], lan), fate::not_ripe);
  EXPECT_FALSE(is_recorded());
}

/// A datagram cannot be taken apart into a session or tunnel.
TEST_F(fragments, do_not_enter_sessions_and_tunnels) {
  for (const side out : {side::pppoe, side::l2tp, side::pptp}) {
    peer_route_.reset();
    tunnel_route_.reset();
    out_ppp_.reset();
    (void)kcih->_vok_ipc_delete_by_dev(kcih, wan);
    datagrams->vok_ext->flags &= ~ct_ext_flag::direction_marks;
    set_up(side::plain, out);
    report r = source_nat(datagrams, udp, false);
    r.dev = out_ppp_->dev;
    ripen(r);
    EXPECT_EQ(offer(pieces(false)[0], lan), fate::fragment);
    EXPECT_FALSE(is_recorded());
  }
}

/// Bits that belong to no flag of TCP are data in a later fragment.
TEST_F(fragments, of_tcp_show_their_flags_in_the_first_only) {
  connect();
  const auto piece = [](u16 offset, bool more) {
    return packet_of(wire::ip_protocol::tcp, lan_mac, host_mac, inside, peer)
        .flags(offset == 0 ? wire::tcp_flag::ack : 0xFF)
        .payload(4)
        .fragment(offset, more)
        .build();
  };
  EXPECT_EQ(offer(piece(0, true), lan), fate::forward);
  EXPECT_EQ(offer(piece(24, true), lan), fate::forward);
  EXPECT_EQ(offer(piece(48, false), lan), fate::forward);
}

}  // namespace
}  // namespace tarvelo::test
