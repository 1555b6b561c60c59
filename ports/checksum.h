// SPDX-License-Identifier: GPL-2.0-only
//
// The Internet checksum (RFC 1071) over bytes as they lie in a frame. A sum is a folded ones'-
// complement sum of big-endian 16-bit words, as a number in host order: sums of pieces of even
// length add up. The checksum is the complement of the sum of everything it covers.
//
// Pure functions, any context.
#pragma once

#include <span>

#include "kernel/types.h"

namespace tarvelo::ports {

/// Sum of `bytes`, taken as if a zero byte followed an odd length, on top of `sum`.
[[nodiscard]] u16 ones_complement_sum(std::span<const u8> bytes, u16 sum = 0) noexcept;

/// Ones'-complement addition of two sums.
[[nodiscard]] constexpr u16 add_sums(u16 a, u16 b) noexcept {
  const u32 wide = u32{a} + b;
  return static_cast<u16>((wide & 0xFFFF) + (wide >> 16));
}

/// The sum of a TCP or UDP pseudo header: both addresses as they follow each other in the IP
/// header, the protocol and the transport length in bytes.
[[nodiscard]] u16 pseudo_header_sum(std::span<const u8> addresses, u8 protocol,
                                    u32 length) noexcept;

}  // namespace tarvelo::ports
