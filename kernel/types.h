// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel's short integer names and the few compiler idioms that all of it uses.
#pragma once

#include <cstddef>
#include <cstdint>

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s8 = std::int8_t;
using s16 = std::int16_t;
using s32 = std::int32_t;
using s64 = std::int64_t;

using gfp_t = unsigned int;
using loff_type = long long;

/// One load or store that the compiler neither splits nor repeats, for words shared without a lock.
template <typename T>
[[nodiscard]] inline T read_once(const T& word) noexcept {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <typename T>
inline void write_once(T& word, T value) noexcept {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

/// A place in the source, for messages that name where something was done. As a default argument
/// `code_place::here()` is the caller's place.
struct code_place {
  const char* file;
  unsigned line;

  [[nodiscard]] static constexpr code_place here(const char* file = __builtin_FILE(),
                                                 unsigned line = __builtin_LINE()) noexcept {
    return {file, line};
  }
};

/// True in builds that check the use of locks, contexts, references, buffers and RCU.
#ifdef TARVELO_CHECKED
inline constexpr bool kernel_checked = true;
#else
inline constexpr bool kernel_checked = false;
#endif
