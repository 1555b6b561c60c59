// SPDX-License-Identifier: GPL-2.0-only
//
// The identity of a fragmented IPv6 datagram, which all of its fragments carry.
#pragma once

#include "module/ipv6/address.h"

namespace tarvelo {

/// As stored in the IPv6 and fragment headers, that is in network byte order.
struct frag_key_v6 {
  u32 id;
  wire::in6_addr saddr;
  wire::in6_addr daddr;
  u32 proto;  ///< a 16-bit value

  friend bool operator==(const frag_key_v6& a, const frag_key_v6& b) {
    return a.id == b.id && a.proto == b.proto && same_address(a.saddr.bytes, b.saddr) &&
           same_address(a.daddr.bytes, b.daddr);
  }
};

/// Mixes the stored words; the cache masks the result.
[[nodiscard]] inline u32 frag_hash_v6(const frag_key_v6& key) {
  const u32 source = folded(key.saddr);
  const u32 destination = folded(key.daddr);
  const u32 addresses = source ^ destination ^ (source >> 8) ^ (destination >> 16);
  return key.id ^ key.proto ^ addresses ^ (addresses >> 16);
}

}  // namespace tarvelo
