// SPDX-License-Identifier: GPL-2.0-only
//
// Reassembly on the way in, fragmentation on the way out.
#include <algorithm>

#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

/// A piece of the IP data, bytes.
struct range {
  u16 start;
  u16 end;
};

class fragment_test : public router_test {
 protected:
  /// The IP data that fragments are cut from.
  static bytes ip_data(std::size_t payload) {
    const bytes whole = packet().ipv4(host, server).udp(4000, 53).payload(payload).build();
    return {whole.begin() + wire::ipv4_min_length, whole.end()};
  }
  static packet fragment_of(const bytes& data, range part, u16 id = 7) {
    return from_host()
        .type(17)
        .id(id)
        .fragment(part.start, part.end < data.size())
        .raw(std::span(data).subspan(part.start, static_cast<std::size_t>(part.end - part.start)));
  }
  static bytes whole_on_wan(std::size_t payload, u16 id = 7) {
    return packet()
        .eth(gateway_mac, wan_mac)
        .ipv4(host, server)
        .id(id)
        .ttl(63)
        .udp(4000, 53)
        .payload(payload)
        .build();
  }
};

TEST_F(fragment_test, a_datagram_is_put_together_in_every_order_of_arrival) {
  start();
  constexpr std::size_t payload = 112;
  const bytes data = ip_data(payload);
  std::vector<range> parts = {{0, 32}, {32, 40}, {40, 96}, {96, 120}};
  const auto by_start = [](const range& a, const range& b) { return a.start < b.start; };
  do {
    for (std::size_t i = 0; i < parts.size(); ++i) {
      EXPECT_TRUE(sent_on("wan0").empty());
      EXPECT_EQ(receive("lan0", fragment_of(data, parts[i])), receive_verdict::slow);
    }
    EXPECT_FRAME_EQ(only_frame_on("wan0"), whole_on_wan(payload));
  } while (std::next_permutation(parts.begin(), parts.end(), by_start));
}

TEST_F(fragment_test, a_repeated_fragment_is_passed_over) {
  start();
  const bytes data = ip_data(72);
  EXPECT_EQ(receive("lan0", fragment_of(data, {0, 40})), receive_verdict::slow);
  EXPECT_EQ(receive("lan0", fragment_of(data, {0, 40})), receive_verdict::dropped);
  EXPECT_EQ(receive("lan0", fragment_of(data, {40, 80})), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("wan0"), whole_on_wan(72));
}

// Each sequence would be a whole datagram if the conflicting fragment were let in or ignored.
TEST_F(fragment_test, fragments_that_contradict_each_other_end_the_datagram) {
  start();
  // Without a UDP checksum, which would give a wrong datagram away later.
  bytes data = ip_data(72);
  data[6] = data[7] = 0;
  const bytes longer = ip_data(80);
  const struct {
    const char* what;
    std::vector<packet> fragments;
  } rows[] = {
      {"overlap from the front",
       {fragment_of(data, {0, 40}), fragment_of(data, {32, 80}), fragment_of(data, {40, 80})}},
      {"overlap from the back",
       {fragment_of(data, {40, 80}), fragment_of(data, {0, 48}), fragment_of(data, {0, 40})}},
      {"an overlap from the front that makes up for a hole",
       {fragment_of(data, {0, 40}), fragment_of(data, {32, 48}), fragment_of(data, {56, 80})}},
      {"an overlap from the back that makes up for a hole",
       {fragment_of(data, {40, 80}), fragment_of(data, {24, 48}), fragment_of(data, {0, 16})}},
      {"a piece inside another",
       {fragment_of(data, {0, 40}), fragment_of(data, {8, 16}), fragment_of(data, {40, 80})}},
      {"the same start, another length",
       {fragment_of(data, {0, 40}), fragment_of(data, {0, 32}), fragment_of(data, {40, 80})}},
      {"two ends",
       {fragment_of(data, {72, 80}), fragment_of(longer, {80, 88}), fragment_of(data, {0, 72})}},
      {"beyond the end",
       {fragment_of(data, {72, 80}), fragment_of(longer, {80, 88}).fragment(80, true),
        fragment_of(data, {0, 72})}},
      {"an end before what is there",
       {fragment_of(longer, {40, 80}), fragment_of(data, {0, 32}).fragment(0, true),
        from_host().type(17).id(7).fragment(32, false).raw(std::span(data).subspan(32, 8))}},
  };
  u16 id = 100;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    ++id;
    for (packet fragment : row.fragments)
      receive("lan0", fragment.id(id));
    EXPECT_TRUE(sent_on("wan0").empty());
  }
}

TEST_F(fragment_test, malformed_fragments_are_dropped) {
  start();
  const bytes data = ip_data(72);
  const std::span all(data);
  const packet base = from_host().type(17).id(9);
  EXPECT_EQ(receive("lan0", packet(base).fragment(0, true)), receive_verdict::dropped) << "empty";
  EXPECT_EQ(receive("lan0", packet(base).fragment(0, true).raw(all.first(41))),
            receive_verdict::dropped)
      << "not a multiple of 8";
  EXPECT_EQ(receive("lan0", packet(base).fragment(65528, false).raw(all.first(8))),
            receive_verdict::dropped)
      << "longer than a datagram can be";
}

TEST_F(fragment_test, fragments_of_different_datagrams_are_kept_apart) {
  start();
  const bytes data = ip_data(72);
  receive("lan0", fragment_of(data, {0, 40}, 1));
  receive("lan0", fragment_of(data, {40, 80}, 2));
  receive("lan0", packet(fragment_of(data, {40, 80}, 1)).type(6));
  receive("wan0", packet()
                      .eth(wan_mac, gateway_mac)
                      .ipv4(host, server)
                      .type(17)
                      .id(1)
                      .fragment(40, false)
                      .raw(std::span(data).subspan(40)));
  EXPECT_TRUE(sent_on("wan0").empty());
  receive("lan0", fragment_of(data, {40, 80}, 1));
  EXPECT_FRAME_EQ(only_frame_on("wan0"), whole_on_wan(72, 1));
}

TEST_F(fragment_test, what_stays_incomplete_goes_after_thirty_seconds) {
  start();
  const bytes data = ip_data(72);
  receive("lan0", fragment_of(data, {0, 40}, 1));
  receive("lan0", fragment_of(data, {40, 80}, 2));
  pass(1);
  receive("lan0", fragment_of(data, {40, 80}, 3));
  pass(29998);
  EXPECT_TRUE(sent_on("lan0").empty());
  pass(1);
  // Only the sender of the first fragment learns of it: the other error would quote no ports.
  const bytes error = only_frame_on("lan0");
  ASSERT_TRUE(sound_frame(error));
  EXPECT_EQ(icmp_of(error).type, 11);
  EXPECT_EQ(icmp_of(error).code, 1);

  receive("lan0", fragment_of(data, {40, 80}, 1));
  EXPECT_TRUE(sent_on("wan0").empty()) << "what has timed out is forgotten";
  receive("lan0", fragment_of(data, {0, 40}, 3));
  EXPECT_FRAME_EQ(only_frame_on("wan0"), whole_on_wan(72, 3));
}

TEST_F(fragment_test, the_number_of_datagrams_and_their_memory_are_bounded) {
  config.table_limits.datagrams_in_reassembly = 4;
  config.table_limits.reassembly_bytes = 8192;
  start();
  const bytes data = ip_data(72);
  for (u16 id = 1; id <= 4; ++id) {
    EXPECT_EQ(receive("lan0", fragment_of(data, {0, 40}, id)), receive_verdict::slow);
  }
  EXPECT_EQ(receive("lan0", fragment_of(data, {0, 40}, 5)), receive_verdict::dropped);
  EXPECT_EQ(router->statistics().reassembly_refused, 1U);
  EXPECT_EQ(receive("lan0", fragment_of(data, {40, 80}, 1)), receive_verdict::slow)
      << "those that are there may still be completed";
  EXPECT_FRAME_EQ(only_frame_on("wan0"), whole_on_wan(72, 1));

  const bytes large(1480, 0x55);
  unsigned taken = 0;
  for (u16 offset = 0; offset < 14800; offset = static_cast<u16>(offset + 1480)) {
    const packet part = from_host().type(17).id(6).fragment(offset, true).raw(large);
    if (receive("lan0", part) == receive_verdict::slow) ++taken;
  }
  EXPECT_GT(taken, 2U);
  EXPECT_LE(taken, 8192U / 1480U);
}

TEST_F(fragment_test, the_longest_datagram_passes) {
  start();
  constexpr std::size_t payload = 65535 - 20 - 8;
  const bytes data = ip_data(payload);
  for (std::size_t start_at = 0; start_at < data.size(); start_at += 1480) {
    const std::size_t end = std::min<std::size_t>(start_at + 1480, data.size());
    ASSERT_EQ(
        receive("lan0", fragment_of(data, {static_cast<u16>(start_at), static_cast<u16>(end)})),
        receive_verdict::slow);
  }
  bytes received;
  for (const bytes& frame : sent_on("wan0")) {
    ASSERT_TRUE(sound_frame(frame));
    const std::size_t offset =
        (ipv4_of(frame).frag_off.host() & wire::ip_frag::offset_mask) * std::size_t{8};
    ASSERT_EQ(offset, received.size());
    received.insert(received.end(), frame.begin() + 34, frame.end());
  }
  EXPECT_EQ(received, data);
}

TEST_F(fragment_test, a_packet_larger_than_the_mtu_is_cut_with_its_options_where_they_belong) {
  config.devices[1].mtu = 576;
  start();
  // Router alert is copied into every fragment, record route is not.
  const u8 options[] = {0x94, 0x04, 0x00, 0x00, 0x07, 0x07, 0x04, 0x01, 0x02, 0x03, 0x04, 0x00};
  EXPECT_EQ(receive("lan0", from_host().options(options).udp(4000, 53).payload(1200)),
            receive_verdict::slow);
  const std::vector<bytes> frames = sent_on("wan0");
  ASSERT_EQ(frames.size(), 3U);
  bytes received;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    SCOPED_TRACE(i);
    ASSERT_TRUE(sound_frame(frames[i]));
    EXPECT_LE(frames[i].size(), 14U + 576U);
    const u16 field = ipv4_of(frames[i]).frag_off.host();
    EXPECT_EQ((field & wire::ip_frag::more_fragments) != 0, i + 1 < frames.size());
    EXPECT_EQ((field & wire::ip_frag::offset_mask) * 8U, received.size());
    EXPECT_EQ(frames[i][34], 0x94);
    EXPECT_EQ(frames[i][38], i == 0 ? 0x07 : 0x01);
    received.insert(received.end(), frames[i].begin() + 46, frames[i].end());
  }
  EXPECT_EQ(received, ip_data(1200));
}

}  // namespace
}  // namespace tarvelo::test
