// SPDX-License-Identifier: GPL-2.0-only
//
// Big-endian integers as they lie in a packet: alignment 1, no implicit conversion, so that a
// slip of byte order does not compile.
//
// Two views: host() is the number; raw() is the stored bytes read as a native word, which is how
// the connection tables keep their keys and how ones'-complement sums are made.
#pragma once

#include <bit>
#include <type_traits>

#include "kernel/sanitizers.h"
#include "kernel/types.h"

// The C library's headers define macros with the names of the functions below, but only in
// optimised builds. Its header comes first here, so that no later include brings them back.
#if __STDC_HOSTED__
#include <netinet/in.h>
#undef htons
#undef htonl
#undef ntohs
#undef ntohl
#endif

namespace wire {

static_assert(std::endian::native == std::endian::little,
              "the tables' hashes are defined on little-endian words");

[[nodiscard]] constexpr u16 swap_bytes(u16 v) noexcept {
  return __builtin_bswap16(v);
}
[[nodiscard]] constexpr u32 swap_bytes(u32 v) noexcept {
  return __builtin_bswap32(v);
}

template <typename Word>
class big_endian {
 public:
  big_endian() = default;
  constexpr explicit big_endian(Word host) noexcept
      : bytes_(std::bit_cast<storage>(swap_bytes(host))) {}

  [[nodiscard]] static constexpr big_endian from_raw(Word raw) noexcept {
    big_endian v;
    v.bytes_ = std::bit_cast<storage>(raw);
    return v;
  }

  [[nodiscard]] constexpr Word host() const noexcept { return swap_bytes(raw()); }
  [[nodiscard]] constexpr Word raw() const noexcept {
#ifdef HOSTED_ASAN
    // The sanitizer sees memcpy's read of the packet, and not bit_cast's. Elsewhere that one makes
    // the better code.
    if (!std::is_constant_evaluated()) {
      Word stored;
      __builtin_memcpy(&stored, &bytes_, sizeof(stored));
      return stored;
    }
#endif
    return std::bit_cast<Word>(bytes_);
  }

  friend constexpr bool operator==(const big_endian& a, const big_endian& b) noexcept {
    return a.raw() == b.raw();
  }

 private:
  struct storage {
    u8 at[sizeof(Word)];
  };
  storage bytes_;
};

using be16 = big_endian<u16>;
using be32 = big_endian<u32>;

static_assert(sizeof(be16) == 2 && alignof(be16) == 1);
static_assert(sizeof(be32) == 4 && alignof(be32) == 1);

/// Between host order and the raw form of a port or address kept in a record.
[[nodiscard]] constexpr u16 htons(u16 host) noexcept {
  return swap_bytes(host);
}
[[nodiscard]] constexpr u32 htonl(u32 host) noexcept {
  return swap_bytes(host);
}
[[nodiscard]] constexpr u16 ntohs(u16 raw) noexcept {
  return swap_bytes(raw);
}
[[nodiscard]] constexpr u32 ntohl(u32 raw) noexcept {
  return swap_bytes(raw);
}

}  // namespace wire
