// SPDX-License-Identifier: GPL-2.0-only
//
// A fragment of either family, read once: which datagram it belongs to and which part of it it is
// (RFC 791; RFC 8200, 4.5). Pure functions of the packet's bytes.
#pragma once

#include <compare>
#include <optional>

#include "kernel/types.h"
#include "kernel/wire/ip.h"

namespace tarvelo::stack {

/// What fragments of one datagram have in common. Network byte order; an IPv4 address fills the
/// first four bytes. The fragments of an IPv6 datagram may name different next headers, so there it
/// is not part of the key but 0.
struct fragment_key {
  u8 version;
  u8 protocol;
  u32 id;
  u8 saddr[sizeof(wire::in6_addr)];
  u8 daddr[sizeof(wire::in6_addr)];

  friend auto operator<=>(const fragment_key&, const fragment_key&) = default;
};

struct fragment_view {
  fragment_key key;
  u32 header;   ///< bytes before the data that are the datagram's, fragment header left out
  u32 start;    ///< of the data within the datagram's, bytes
  u32 end;      ///< one past it
  u32 max_end;  ///< the largest `end` with which the datagram is none too long
  bool last;
};

/// Reads the packet at `start`, of which `bytes` are there (what is behind it is left out). Nothing
/// when it is no fragment, or no sound one: without data, cut short, or not a multiple of 8 bytes
/// long and not the last.
[[nodiscard]] std::optional<fragment_view> read_fragment(const u8* start, u32 bytes) noexcept;

}  // namespace tarvelo::stack
