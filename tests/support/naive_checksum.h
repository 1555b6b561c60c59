// SPDX-License-Identifier: GPL-2.0-only
//
// The Internet checksum (RFC 1071) the long way: byte by byte, over everything, each time. It
// shares nothing with the code under test and is what that code's deltas are held against.
#pragma once

#include <span>

#include "kernel/types.h"
#include "kernel/wire/ip.h"

namespace tarvelo::test {

class naive_sum {
 public:
  /// Adds bytes as big-endian 16-bit words; an odd last byte is followed by a zero. So only the
  /// last piece may be odd.
  naive_sum& add(std::span<const u8> data);
  naive_sum& add_word(u16 host);

  /// The value for a checksum field, host order.
  [[nodiscard]] u16 checksum() const;
  /// True when what was summed, checksum field included, is consistent.
  [[nodiscard]] bool good() const { return checksum() == 0; }

 private:
  u64 sum_ = 0;
};

/// The sum of a pseudo header: `addresses` are both addresses as they lie in the IP header.
[[nodiscard]] naive_sum pseudo_header(std::span<const u8> addresses, u8 protocol, u32 length);

}  // namespace tarvelo::test
