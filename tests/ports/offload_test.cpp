// SPDX-License-Identifier: GPL-2.0-only
#include "ports/offload.h"

#include <gtest/gtest.h>

#include "ports/checksum.h"
#include "tests/support/frame_match.h"
#include "tests/support/naive_checksum.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::ports {
namespace {

using test::bytes;
using test::packet;

constexpr const char* router = "02:00:00:00:01:01";
constexpr const char* host = "02:00:00:00:01:02";

TEST(checksum, agrees_with_the_long_way_at_every_length_and_offset) {
  bytes data;
  for (u32 i = 0; i < 80; ++i)
    data.push_back(static_cast<u8>(0xFF - i * 7));
  for (std::size_t from = 0; from < 4; ++from) {
    for (std::size_t length = 0; from + length <= data.size(); ++length) {
      const std::span<const u8> piece(data.data() + from, length);
      const u16 expected = test::naive_sum().add(piece).checksum();
      EXPECT_EQ(static_cast<u16>(~ones_complement_sum(piece)), expected) << from << " " << length;
    }
  }
}

struct partial_row {
  const char* name;
  packet whole;
  u16 csum_start;
  u16 csum_offset;
};

constexpr u16 udp_check = 6;
constexpr u16 tcp_check = 16;

TEST(offload, completes_a_checksum_that_was_only_begun) {
  const partial_row rows[] = {
      {"tcp", packet().eth(router, host).ipv4("192.168.1.2", "198.51.100.7").tcp(1, 2).payload(33),
       34, tcp_check},
      {"udp", packet().eth(router, host).ipv4("192.168.1.2", "198.51.100.7").udp(1, 2).payload(8),
       34, udp_check},
      {"udp over ipv6",
       packet().eth(router, host).ipv6("2001:db8::1", "2001:db8::2").udp(1, 2).payload(9), 54,
       udp_check},
      {"without link layer", packet().ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2), 20, tcp_check},
  };
  for (const partial_row& row : rows) {
    bytes frame = packet(row.whole).partial_checksum().build();
    const offload_header offload{offload_flag::needs_csum, 0, 0, 0, row.csum_start,
                                 row.csum_offset};
    ASSERT_TRUE(complete_checksum(frame, offload)) << row.name;
    EXPECT_FRAME_EQ(frame, row.whole.build()) << row.name;
  }
}

TEST(offload, a_udp_checksum_of_zero_is_sent_as_all_ones) {
  // The payload is made so that everything adds up to all ones.
  const packet begun = packet().ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).payload(bytes(2, 0).size());
  bytes frame = packet(begun).partial_checksum().build();
  const u16 rest = ones_complement_sum(std::span<const u8>(frame).subspan(20));
  const u16 filler = static_cast<u16>(add_sums(static_cast<u16>(~rest), wire::ntohs(0x0100)));
  frame[28] = static_cast<u8>(filler >> 8);
  frame[29] = static_cast<u8>(filler);
  ASSERT_EQ(ones_complement_sum(std::span<const u8>(frame).subspan(20)), 0xFFFF);
  ASSERT_TRUE(complete_checksum(frame, {offload_flag::needs_csum, 0, 0, 0, 20, udp_check}));
  EXPECT_EQ(frame[26], 0xFF);
  EXPECT_EQ(frame[27], 0xFF);
}

TEST(offload, a_checksum_field_beyond_the_frame_is_refused) {
  bytes frame = packet().ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).build();
  const bytes before = frame;
  const auto end = static_cast<u16>(frame.size());
  EXPECT_FALSE(complete_checksum(
      frame, {offload_flag::needs_csum, 0, 0, 0, 20, static_cast<u16>(end - 21)}));
  EXPECT_FALSE(complete_checksum(frame, {offload_flag::needs_csum, 0, 0, 0, end, 0}));
  EXPECT_FALSE(complete_checksum(frame, {offload_flag::needs_csum, 0, 0, 0, 0xFFFF, 0xFFFF}));
  EXPECT_EQ(frame, before);
}

}  // namespace
}  // namespace tarvelo::ports
