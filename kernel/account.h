// SPDX-License-Identifier: GPL-2.0-only
//
// Counts what the kernel has handed out, and lets an allocation be failed on purpose: the inner
// side of kernel/fault.h. Only kernel/*.cpp includes this.
//
// Each thread counts in words of its own, so that the packet path pays a load and a store; the sum
// over all threads is what is outstanding, whoever gives a thing back.
#pragma once

#include "kernel/types.h"

namespace hosted::account {

enum class kind : u8 {
  allocation,
  slab_object,
  slab_cache,
  buffer,
  proc_entry,
  connection,
};
inline constexpr unsigned kinds = 6;

/// The words of one thread. Never freed: a thread that starts takes those of one that has ended.
struct shard {
  u64 out[kinds];
  bool in_use;
  shard* next;
};

extern thread_local constinit shard* own_shard;
extern bool injecting;

void add_slow(kind what, u64 difference) noexcept;
[[nodiscard]] bool may_allocate_slow() noexcept;

/// Counts one allocation about to be made. False when it is the one that must fail.
[[nodiscard]] inline bool may_allocate() noexcept {
  return !__atomic_load_n(&injecting, __ATOMIC_RELAXED) || may_allocate_slow();
}

inline void add(kind what, u64 difference) noexcept {
  if (own_shard == nullptr) [[unlikely]] {
    add_slow(what, difference);
    return;
  }
  u64& word = own_shard->out[static_cast<unsigned>(what)];
  write_once(word, static_cast<u64>(read_once(word) + difference));
}

inline void made(kind what) noexcept {
  add(what, 1);
}

/// Wraps below zero in a thread that gives back what another has taken; the sum is right.
inline void gone(kind what) noexcept {
  add(what, ~u64{0});
}

}  // namespace hosted::account

namespace hosted {
extern bool user_copies_fail;  ///< read_once()
}
