// SPDX-License-Identifier: GPL-2.0-only
//
// Datagrams in fragments through the IPv6 routed path: in which order they can go, and that no
// record stays behind.
#include "module/forward/hooks.h"
#include "module/fragcache/ipv6.h"
#include "tests/module/ipv6_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 udp = wire::ip_protocol::udp;
constexpr u16 more = 1;
constexpr u16 piece = 64;  ///< bytes of each fragment but the last

unsigned divert(unsigned, u8, sk_buff*) {
  return VOK_DIVERT;
}

class ipv6_fragments_test : public ipv6_scene {
 protected:
  ipv6_fragments_test() {
    ripen6(outbound(ct, udp));
    ripen6(outbound(other, udp, 41000));
  }

  using ipv6_scene::outbound;
  [[nodiscard]] report6 outbound(const tracked_connection& connection, u8 protocol, u16 port) {
    report6 r = ipv6_scene::outbound(connection, protocol);
    r.frame = packet6(link(), protocol, {inside6.address, port}, peer6).build();
    return r;
  }

  [[nodiscard]] static packet link() { return ethernet(lan_mac, host_mac); }
  [[nodiscard]] static packet sent_link() { return ethernet(gateway_mac, wan_mac); }

  /// The n-th fragment of a datagram.
  [[nodiscard]] static bytes fragment(packet front, u32 id, u16 n, bool last,
                                      u16 port = inside6.port) {
    const u16 word = static_cast<u16>(n * piece | (last ? 0 : more));
    packet p = fragment6(std::move(front), id, word, inside6, peer6);
    if (n == 0) return p.udp(port, peer6.port).payload(piece - sizeof(wire::udphdr)).build();
    return p.payload(last ? 13 : piece, static_cast<u8>(n)).build();
  }
  [[nodiscard]] fate offer_fragment(u32 id, u16 n, bool last = false, u16 port = inside6.port) {
    return offer(fragment(link(), id, n, last, port), lan);
  }

  /// Records that are in use.
  [[nodiscard]] static int recorded() {
    int free = 0;
    for (const fragentry_v6* e = vok_udp_cache_list_free_v6.first; e != nullptr;
         e = e->free_link.next)
      ++free;
    return udp_fragment_v6_entries - free;
  }

  tracked6 ct{udp, inside6, peer6};
  tracked6 other{udp, {inside6.address, 41000}, peer6};
};

TEST_F(ipv6_fragments_test, follow_the_first_and_leave_as_they_came) {
  for (u16 n = 0; n < 5; ++n) {
    const bool last = n == 4;
    ASSERT_EQ(offer_fragment(1, n, last), fate::forward) << n;
    EXPECT_FRAME_EQ(wan.take().at(0).data, fragment(sent_link(), 1, n, last));
    EXPECT_EQ(recorded(), last ? 0 : 1) << n;
  }
  EXPECT_EQ(offer_fragment(1, 4, true), fate::fragment) << "the last one twice";
  EXPECT_EQ(ct.references(), 1);
}

TEST_F(ipv6_fragments_test, need_the_first_and_their_own_identity) {
  EXPECT_EQ(offer_fragment(1, 1), fate::fragment);
  EXPECT_EQ(offer_fragment(1, 0), fate::forward);
  EXPECT_EQ(offer_fragment(2, 1), fate::fragment);
  EXPECT_EQ(offer_fragment(1, 1), fate::forward);
  EXPECT_EQ(offer_fragment(1, 0), fate::forward) << "the first one twice";
  EXPECT_EQ(recorded(), 1);
  // Fragments of two flows under one identification would be mixed up.
  EXPECT_EQ(offer_fragment(1, 0, false, 41000), fate::fragment);
  EXPECT_EQ(offer_fragment(1, 2, true), fate::forward);
  EXPECT_EQ(recorded(), 0);
  EXPECT_EQ(offer_fragment(1, 0, false, 41000), fate::forward);
  EXPECT_EQ(recorded(), 1);
}

/// Out of a session they go like anything else; into one the first is not taken.
TEST_F(ipv6_fragments_test, come_by_pppoe) {
  pppoe_line line("ppp0", lan, 0x1234, host_mac);
  const endpoint from = {inside6.address, 42000};
  tracked6 connection(udp, from, peer6);
  report6 r = outbound(connection, udp, from.port);
  r.dev = r.rx_dev = line;
  ripen6(r);
  for (u16 n = 0; n < 3; ++n) {
    const bool last = n == 2;
    ASSERT_EQ(offer(fragment(link().pppoe(0x1234), 1, n, last, from.port), lan), fate::forward);
    EXPECT_FRAME_EQ(wan.take().at(0).data, fragment(sent_link(), 1, n, last, from.port));
  }
  EXPECT_EQ(recorded(), 0);
}

TEST_F(ipv6_fragments_test, are_forgotten_after_their_time) {
  EXPECT_EQ(offer_fragment(1, 0), fate::forward);
  pass(fragment_lifetime - 1);
  EXPECT_EQ(offer_fragment(1, 1), fate::forward);
  pass(1);
  EXPECT_EQ(offer_fragment(1, 2), fate::fragment);
  EXPECT_EQ(recorded(), 0);
}

TEST_F(ipv6_fragments_test, are_not_recorded_when_the_first_goes_back) {
  wan->mtu = piece;
  EXPECT_EQ(offer_fragment(1, 0), fate::too_long);
  wan->mtu = 1500;
  ct->vok_ext->add_calls = 1;
  EXPECT_EQ(offer_fragment(1, 0), fate::not_ripe);
  ct->vok_ext->add_calls = ripe;

  vok_hook_ops ops = {{}, divert, nullptr, 10, VOK_HOOK_IP_POST_ROUTING, 0, "tester"};
  ASSERT_EQ(kcih->_vok_register_hook(kcih, &ops), 0);
  EXPECT_EQ(offer_fragment(1, 0), fate::hook_diverted);
  EXPECT_EQ(kcih->_vok_unregister_hook(kcih, &ops), 0);
  synchronize_rcu();
  EXPECT_EQ(recorded(), 0);
}

TEST_F(ipv6_fragments_test, go_back_while_no_record_is_free) {
  for (u32 id = 0; id < udp_fragment_v6_entries; ++id)
    ASSERT_EQ(offer_fragment(id, 0), fate::forward);
  EXPECT_EQ(offer_fragment(9999, 0), fate::fragments_full);
  EXPECT_EQ(offer_fragment(7, 1, true), fate::forward);
  EXPECT_EQ(offer_fragment(9999, 0), fate::forward);
  pass(fragment_lifetime);
  EXPECT_EQ(recorded(), 0);
}

}  // namespace
}  // namespace tarvelo::test
