// SPDX-License-Identifier: GPL-2.0-only
//
// Internet checksums (RFC 1071) and their incremental update (RFC 1624).
//
// Conventions: sums are made of 16-bit words as they lie in memory, so neither data nor results
// are byte-swapped; a checksum is the complement of the folded sum and is stored as it is
// (be16::from_raw). A UDP checksum of 0 means that the datagram carries none: whoever stores a
// computed UDP checksum puts udp_checksum_on_wire() around it.
//
// Pure functions of their arguments.
#pragma once

#include <cstring>

#include "kernel/types.h"
#include "kernel/wire/endian.h"
#include "kernel/wire/ip.h"

namespace tarvelo::stack {

/// Adds `length` bytes to a running sum; an odd last byte counts as if a 0 followed. Only the last
/// piece of a message may be odd. Room for 128 KiB in all before 32 bits overflow.
[[nodiscard]] inline u32 checksum_add(const void* data, u32 length, u32 sum = 0) noexcept {
  const u8* at = static_cast<const u8*>(data);
  for (; length >= 2; length -= 2, at += 2) {
    u16 word;
    std::memcpy(&word, at, sizeof word);
    sum += word;
  }
  return length != 0 ? sum + *at : sum;
}

/// The sum folded to 16 bits, not complemented.
[[nodiscard]] constexpr u16 checksum_fold(u32 sum) noexcept {
  sum = (sum & 0xFFFF) + (sum >> 16);
  sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<u16>(sum);
}

/// The checksum that goes with a running sum.
[[nodiscard]] constexpr u16 checksum_finish(u32 sum) noexcept {
  return static_cast<u16>(~checksum_fold(sum));
}

/// True when data that contains its own checksum adds up.
[[nodiscard]] inline bool checksum_holds(const void* data, u32 length, u32 sum = 0) noexcept {
  return checksum_finish(checksum_add(data, length, sum)) == 0;
}

/// The sum of the pseudo header of TCP and UDP. Addresses in network order, `length` (header and
/// data) in host order.
[[nodiscard]] constexpr u32 pseudo_header_sum(u32 saddr, u32 daddr, u8 protocol,
                                              u16 length) noexcept {
  return (saddr & 0xFFFF) + (saddr >> 16) + (daddr & 0xFFFF) + (daddr >> 16) +
         wire::htons(protocol) + wire::htons(length);
}

/// The same for IPv6, ICMPv6 included: its checksum covers the addresses too (RFC 8200, 8.1).
[[nodiscard]] inline u32 pseudo_header_sum(const wire::in6_addr& saddr, const wire::in6_addr& daddr,
                                           u8 protocol, u16 length) noexcept {
  const u32 sum = checksum_add(&daddr, sizeof daddr, checksum_add(&saddr, sizeof saddr));
  return sum + wire::htons(protocol) + wire::htons(length);
}

/// The checksum after one 16-bit word of what it covers has changed (RFC 1624, equation 3).
[[nodiscard]] constexpr u16 checksum_replace16(u16 check, u16 before, u16 after) noexcept {
  const u32 sum = static_cast<u16>(~check) + static_cast<u32>(static_cast<u16>(~before)) + after;
  return checksum_finish(sum);
}

/// The same for a 32-bit word that begins at an even offset.
[[nodiscard]] constexpr u16 checksum_replace32(u16 check, u32 before, u32 after) noexcept {
  const u16 half = checksum_replace16(check, static_cast<u16>(before), static_cast<u16>(after));
  return checksum_replace16(half, static_cast<u16>(before >> 16), static_cast<u16>(after >> 16));
}

/// A computed UDP checksum as it is stored: 0 would say that there is none.
[[nodiscard]] constexpr u16 udp_checksum_on_wire(u16 check) noexcept {
  return check != 0 ? check : 0xFFFF;
}

}  // namespace tarvelo::stack
