// SPDX-License-Identifier: GPL-2.0-only
//
// The identity of a fragmented IPv4 datagram, which all of its fragments carry.
#pragma once

#include "kernel/types.h"

namespace tarvelo {

/// As stored in the IPv4 header, that is in network byte order.
struct frag_key {
  u16 id;
  u8 proto;
  u32 saddr;
  u32 daddr;

  friend constexpr bool operator==(const frag_key&, const frag_key&) = default;
};

/// Mixes the stored words; the cache masks the result.
[[nodiscard]] constexpr u32 frag_hash(const frag_key& key) {
  const u32 addresses = key.saddr ^ key.daddr;
  const u32 with_id = addresses ^ (addresses >> 16) ^ key.id;
  return with_id ^ (with_id >> 8) ^ key.proto;
}

}  // namespace tarvelo
