// SPDX-License-Identifier: GPL-2.0-only
//
// The module's memory wrappers. Everything that a packet path may need is allocated here, without
// sleeping, so all of them may be called in any context.
#pragma once

#include "kernel/rcupdate.h"
#include "kernel/skbuff.h"
#include "kernel/slab.h"
#include "kernel/string.h"

namespace tarvelo {

/// Null on failure; the memory is not cleared.
[[nodiscard]] inline void* plat_malloc_t(std::size_t size) {
  return kmalloc(size, GFP_ATOMIC);
}

/// Null is allowed. `size` tells the reader what is freed; nothing depends on it.
inline void plat_mfree_t(void* memory, [[maybe_unused]] std::size_t size) {
  kfree(memory);
}

inline void plat_skb_free(sk_buff* skb, code_place at = code_place::here()) {
  kfree_skb(skb, at);
}

[[nodiscard]] inline void* plat_malloc_cleared(std::size_t size) {
  void* memory = plat_malloc_t(size);
  if (memory != nullptr) memset(memory, 0, size);
  return memory;
}

/// Frees a table entry once no reader can still see it. The entry begins with `reserved`, bytes
/// that are kept for this; it was allocated as one block.
template <typename Entry>
inline void free_after_grace_period(Entry* entry) {
  static_assert(offsetof(Entry, reserved) == 0);
  static_assert(sizeof(Entry::reserved) >= sizeof(callback_head));
  call_rcu(reinterpret_cast<callback_head*>(entry->reserved),
           [](callback_head* head) { kfree(head); });
}

}  // namespace tarvelo
