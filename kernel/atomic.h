// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel's 32-bit atomic counter. Operations that return a value are full barriers, the others
// order nothing, as in Linux. Also usable on a plain 32-bit word of a published record.
#pragma once

#include "kernel/types.h"

struct atomic_t {
  s32 counter;
};

[[nodiscard]] inline s32 atomic_read(const atomic_t* v) noexcept {
  return __atomic_load_n(&v->counter, __ATOMIC_RELAXED);
}

inline void atomic_set(atomic_t* v, s32 value) noexcept {
  __atomic_store_n(&v->counter, value, __ATOMIC_RELAXED);
}

inline void atomic_inc(atomic_t* v) noexcept {
  __atomic_fetch_add(&v->counter, 1, __ATOMIC_RELAXED);
}

inline void atomic_dec(atomic_t* v) noexcept {
  __atomic_fetch_sub(&v->counter, 1, __ATOMIC_RELAXED);
}

/// Change some bits of a word whose others somebody else may be changing.
///@{
inline void atomic_set_mask(u32 mask, u32* word) noexcept {
  __atomic_fetch_or(word, mask, __ATOMIC_RELAXED);
}
inline void atomic_clear_mask(u32 mask, u32* word) noexcept {
  __atomic_fetch_and(word, ~mask, __ATOMIC_RELAXED);
}
///@}

[[nodiscard]] inline s32 atomic_inc_return(atomic_t* v) noexcept {
  return __atomic_add_fetch(&v->counter, 1, __ATOMIC_SEQ_CST);
}

/// True when the count has become 0.
[[nodiscard]] inline bool atomic_dec_and_test(atomic_t* v) noexcept {
  return __atomic_sub_fetch(&v->counter, 1, __ATOMIC_SEQ_CST) == 0;
}

/// Raises the count unless it is 0; false when it was. A record whose count is 0 is being freed and
/// must not be revived.
[[nodiscard]] inline bool atomic_inc_not_zero(atomic_t* v) noexcept {
  s32 seen = atomic_read(v);
  while (seen != 0) {
    if (__atomic_compare_exchange_n(&v->counter, &seen, seen + 1, true, __ATOMIC_SEQ_CST,
                                    __ATOMIC_RELAXED)) {
      return true;
    }
  }
  return false;
}
