// SPDX-License-Identifier: GPL-2.0-only
//
// The identity of a fragmented IPv6 datagram, which all of its fragments carry.
#pragma once

#include <bit>

#include "kernel/wire/ip.h"

namespace tarvelo {

/// As stored in the IPv6 and fragment headers, that is in network byte order.
struct frag_key_v6 {
  u32 id;
  wire::in6_addr saddr;
  wire::in6_addr daddr;
  u32 proto;  ///< a 16-bit value

  /// By blocks: a comparison of the address types goes byte by byte.
  friend bool operator==(const frag_key_v6& a, const frag_key_v6& b) {
    return a.id == b.id && a.proto == b.proto &&
           __builtin_memcmp(&a.saddr, &b.saddr, sizeof(a.saddr)) == 0 &&
           __builtin_memcmp(&a.daddr, &b.daddr, sizeof(a.daddr)) == 0;
  }
};

[[nodiscard]] constexpr u32 folded(const wire::in6_addr& address) {
  struct words {
    u32 at[sizeof(wire::in6_addr) / sizeof(u32)];
  };
  const auto stored = std::bit_cast<words>(address);
  return stored.at[0] ^ stored.at[1] ^ stored.at[2] ^ stored.at[3];
}

/// Mixes the stored words; the cache masks the result.
[[nodiscard]] constexpr u32 frag_hash_v6(const frag_key_v6& key) {
  const u32 source = folded(key.saddr);
  const u32 destination = folded(key.daddr);
  const u32 addresses = source ^ destination ^ (source >> 8) ^ (destination >> 16);
  return key.id ^ key.proto ^ addresses ^ (addresses >> 16);
}

}  // namespace tarvelo
