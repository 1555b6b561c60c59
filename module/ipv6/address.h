// SPDX-License-Identifier: GPL-2.0-only
//
// IPv6 addresses as the tables handle them: 16 stored bytes at any alignment, compared as a block
// and hashed as the words that they are stored in.
#pragma once

#include "kernel/wire/ip.h"

namespace tarvelo {

/// The stored words of an address, folded into one.
[[nodiscard]] inline u32 folded(const wire::in6_addr& address) {
  u32 stored[sizeof(address) / sizeof(u32)];
  __builtin_memcpy(stored, &address, sizeof(stored));
  return stored[0] ^ stored[1] ^ stored[2] ^ stored[3];
}

/// By blocks: a comparison of the address types goes byte by byte.
[[nodiscard]] inline bool same_address(const u8* stored, const wire::in6_addr& address) {
  return __builtin_memcmp(stored, &address, sizeof(address)) == 0;
}

[[nodiscard]] inline wire::in6_addr address_at(const u8* stored) {
  wire::in6_addr address;
  __builtin_memcpy(&address, stored, sizeof(address));
  return address;
}

}  // namespace tarvelo
