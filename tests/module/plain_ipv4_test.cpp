// SPDX-License-Identifier: GPL-2.0-only
//
// The short look at a plain packet against the long one: whatever the short one passes, the long
// one passes as well, and both read the same out of it.
#include "module/forward/plain_ipv4.h"

#include "tests/kernel/small_random.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;

class plain_ipv4_test : public module_scene {
 protected:
  /// True when the short look passes the frame; the long one has then said the same.
  bool agrees(const bytes& frame) {
    sk_buff* skb = make_skb(frame, lan);
    const bool plain = plain_ipv4::is_plain(skb);
    if (plain) expect_long_look(skb);
    kfree_skb(skb);
    return plain;
  }

 private:
  static auto fields(const flow_key& key) {
    return std::tuple(key.sip, key.dip, key.sport, key.dport, key.proto);
  }

  static void expect_long_look(sk_buff* skb) {
    tarvelo::frame f;
    ipv4_flow flow;
    ASSERT_EQ(classify(skb, &f), fate::forward);
    const tarvelo::frame short_f = plain_ipv4::frame_of(skb);
    EXPECT_EQ(std::tie(f.l3, f.tci, f.priority, f.in_flags, f.ip, f.pushed),
              std::tie(short_f.l3, short_f.tci, short_f.priority, short_f.in_flags, short_f.ip,
                       short_f.pushed));
    ASSERT_EQ(read_flow(skb, f, &flow), fate::forward);
    const ipv4_flow short_flow = plain_ipv4::flow_of(skb);
    EXPECT_EQ(fields(flow.key), fields(short_flow.key));
    EXPECT_EQ(std::tie(flow.l3, flow.l4, flow.end, flow.fragment, flow.recorded, flow.tunnel.kind,
                       flow.tunnel.inner),
              std::tie(short_flow.l3, short_flow.l4, short_flow.end, short_flow.fragment,
                       short_flow.recorded, short_flow.tunnel.kind, short_flow.tunnel.inner));
    EXPECT_EQ(flow.tcp_flags & (wire::tcp_flag::fin | wire::tcp_flag::rst), 0);
  }
};

TEST_F(plain_ipv4_test, passes_nothing_that_the_long_look_does_not_pass) {
  constexpr unsigned frames = 60000;
  constexpr std::size_t headers = 54;
  constexpr u8 edges[] = {0x00, 0x01, 0x11, 0x45, 0x46, 0x64, 0x7F, 0x80, 0xE0, 0xFF};
  const bytes whole = packet_of(tcp, lan_mac, host_mac, inside, peer).payload(30).build();
  ASSERT_TRUE(agrees(whole));
  small_random random(1);
  unsigned passed = 0;
  for (unsigned i = 0; i < frames && !HasFailure(); ++i) {
    bytes frame = whole;
    for (u32 changes = 1 + random() % 3; changes != 0; --changes) {
      const u32 value = random();
      frame[random() % headers] =
          value % 2 == 0 ? edges[value / 2 % std::size(edges)] : static_cast<u8>(value >> 8);
    }
    if (random() % 4 == 0) frame.resize(random() % (whole.size() + 1));
    if (agrees(frame)) ++passed;
  }
  EXPECT_GT(passed, frames / 10);
}

}  // namespace
}  // namespace tarvelo::test
