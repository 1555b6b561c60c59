// SPDX-License-Identifier: GPL-2.0-only
//
// Comparing frames in tests. A mismatch prints both frames decoded, where they first differ, and
// both as bytes.
#pragma once

#include <gtest/gtest.h>

#include <span>

#include "tests/support/packet_decoder.h"

namespace tarvelo::test {

[[nodiscard]] testing::AssertionResult same_frame(const char* actual_text,
                                                  const char* expected_text,
                                                  std::span<const u8> actual,
                                                  std::span<const u8> expected);
/// All lengths and checksums of an Ethernet frame are right.
[[nodiscard]] testing::AssertionResult sound_frame(std::span<const u8> frame,
                                                   link kind = link::ethernet);

}  // namespace tarvelo::test

// Macros, for only they keep the line of the failing test.
#define EXPECT_FRAME_EQ(actual, expected) \
  EXPECT_PRED_FORMAT2(::tarvelo::test::same_frame, actual, expected)
#define ASSERT_FRAME_EQ(actual, expected) \
  ASSERT_PRED_FORMAT2(::tarvelo::test::same_frame, actual, expected)
