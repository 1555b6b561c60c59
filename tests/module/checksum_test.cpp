// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/checksum.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "tests/support/naive_checksum.h"

namespace tarvelo::test {
namespace {

TEST(checksum, known_changes) {
  EXPECT_EQ(checksum_change(0x1234, 0x5678), 0x4444U);
  EXPECT_EQ(checksum_change(0xC0A80102, 0x0A000001), 0x4856U);
  EXPECT_EQ(checksum_changed(0xABCD, checksum_change(0x1234, 0x5678)), 0x6789);
  EXPECT_EQ(udp_checksum_changed(0x4444, checksum_change(0x1234, 0x5678)), 0xFFFF);
  EXPECT_EQ(udp_checksum_changed(0, checksum_change(0x1234, 0x5678)), 0);
}

/// An address and a port are replaced in random data; the stored checksum must stay the one that a
/// full sum gives.
TEST(checksum, agrees_with_a_full_sum) {
  std::mt19937 random(20240607);
  for (int round = 0; round < 20000; ++round) {
    std::vector<u8> data(20);
    for (u8& byte : data)
      byte = static_cast<u8>(random());
    // Now and then the extremes, where a ones'-complement zero has two faces.
    if (round % 7 == 0) std::fill(data.begin(), data.begin() + 8, round % 2 == 0 ? 0x00 : 0xFF);
    const u16 before = naive_sum().add(data).checksum();

    u32 address, changed_address = static_cast<u32>(random());
    u16 port, changed_port = static_cast<u16>(random());
    __builtin_memcpy(&address, data.data(), sizeof(address));
    __builtin_memcpy(&port, data.data() + 6, sizeof(port));
    __builtin_memcpy(data.data(), &changed_address, sizeof(address));
    __builtin_memcpy(data.data() + 6, &changed_port, sizeof(port));
    const u32 change =
        checksum_change(address, changed_address) + checksum_change(port, changed_port);
    const u16 after = wire::ntohs(checksum_changed(wire::htons(before), change));

    naive_sum whole;
    whole.add(data).add_word(after);
    ASSERT_TRUE(whole.good()) << "round " << round;
  }
}

}  // namespace
}  // namespace tarvelo::test
