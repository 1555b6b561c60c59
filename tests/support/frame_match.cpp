// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/frame_match.h"

#include <algorithm>

namespace tarvelo::test {
namespace {

/// An IP packet without a MAC header begins with its version; a frame hardly ever looks like that
/// and has a type that is known.
std::string decoded(std::span<const u8> frame) {
  const frame_layout as_ethernet = layout_of(frame);
  const bool known = as_ethernet.arp != frame_layout::absent ||
                     as_ethernet.ipv4 != frame_layout::absent ||
                     as_ethernet.ipv6 != frame_layout::absent;
  const frame_layout as_ip = layout_of(frame, link::ip);
  const bool bare = as_ip.ipv4 != frame_layout::absent || as_ip.ipv6 != frame_layout::absent;
  return describe(frame, !known && bare ? link::ip : link::ethernet);
}

}  // namespace

testing::AssertionResult same_frame(const char* actual_text, const char* expected_text,
                                    std::span<const u8> actual, std::span<const u8> expected) {
  const auto [a, e] = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  if (a == actual.end() && e == expected.end()) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << "frames differ at byte " << a - actual.begin() << "\n"
         << actual_text << "\n  is        " << decoded(actual) << "\n"
         << hex_dump(actual) << expected_text << "\n  should be " << decoded(expected) << "\n"
         << hex_dump(expected);
}

testing::AssertionResult sound_frame(std::span<const u8> frame, link kind) {
  const std::string faults = faults_of(frame, kind);
  if (faults.empty()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << describe(frame, kind) << "\n" << hex_dump(frame);
}

}  // namespace tarvelo::test
