// SPDX-License-Identifier: GPL-2.0-only
#include "stack/checksum.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/support/naive_checksum.h"
#include "tests/support/net_text.h"

namespace tarvelo::test {
namespace {

bytes random_bytes(std::mt19937& random, std::size_t length) {
  bytes data(length);
  for (u8& byte : data)
    byte = static_cast<u8>(random());
  return data;
}

TEST(checksum, of_any_length_agrees_with_the_sum_byte_by_byte) {
  std::mt19937 random(1);
  for (std::size_t length = 0; length < 70; ++length) {
    const bytes data = random_bytes(random, length);
    const u16 sum =
        stack::checksum_finish(stack::checksum_add(data.data(), static_cast<u32>(length)));
    EXPECT_EQ(wire::ntohs(sum), naive_sum().add(data).checksum()) << length << " bytes";
  }
}

TEST(checksum, of_the_longest_datagram_does_not_overflow) {
  const bytes data(wire::ip_max_length, 0xFF);
  const u16 sum =
      stack::checksum_finish(stack::checksum_add(data.data(), static_cast<u32>(data.size())));
  EXPECT_EQ(wire::ntohs(sum), naive_sum().add(data).checksum());
}

// Words of all ones and all zeroes are where an incremental update goes wrong (RFC 1624).
TEST(checksum, updated_for_a_changed_word_agrees_with_a_full_sum) {
  std::mt19937 random(2);
  const u16 corners[] = {0x0000, 0xFFFF, 0x0001, 0xFFFE, 0x00FF, 0x1234};
  for (const u16 before : corners) {
    for (const u16 after : corners) {
      bytes data = random_bytes(random, 20);
      std::memcpy(&data[4], &before, sizeof before);
      const u16 old = stack::checksum_finish(stack::checksum_add(data.data(), 20));
      std::memcpy(&data[4], &after, sizeof after);
      const u16 updated = stack::checksum_replace16(old, before, after);
      EXPECT_EQ(wire::ntohs(updated), naive_sum().add(data).checksum()) << before << " " << after;
    }
  }
}

TEST(checksum, of_zero_is_stored_for_udp_as_all_ones) {
  EXPECT_EQ(stack::udp_checksum_on_wire(0), 0xFFFF);
  EXPECT_EQ(stack::udp_checksum_on_wire(0x1234), 0x1234);
}

}  // namespace
}  // namespace tarvelo::test
