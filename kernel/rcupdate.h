// SPDX-License-Identifier: GPL-2.0-only
//
// Read-copy-update. A reader holds off the reuse of what it can see by being inside a read side;
// softirq context is one. Publishing and following a pointer need the two accessors below; freeing
// what a reader may still see is deferred by call_rcu() until every reader of that moment is gone.
#pragma once

#include "kernel/checked.h"
#include "kernel/types.h"

/// The bookkeeping of one deferred call, kept inside the object that is to be freed. 16 bytes at
/// the most, so that it fits the reserved bytes at the front of the table entries.
struct callback_head {
  void* next;
  void (*func)(callback_head* head);
};

static_assert(sizeof(callback_head) <= 16);

extern "C" {
void hosted_rcu_read_lock() noexcept;
void hosted_rcu_read_unlock() noexcept;
/// Calls `func(head)` in process context after a grace period; any context.
void call_rcu(callback_head* head, void (*func)(callback_head* head)) noexcept;
void hosted_synchronize_rcu() noexcept;
void hosted_rcu_barrier() noexcept;
}

inline void rcu_read_lock(code_place at = code_place::here()) noexcept {
  hosted_rcu_read_lock();
  if constexpr (kernel_checked) checked_rcu_enter(at);
}

inline void rcu_read_unlock(code_place at = code_place::here()) noexcept {
  if constexpr (kernel_checked) checked_rcu_exit(at);
  hosted_rcu_read_unlock();
}

/// Waits until every read side that is open now has ended; process context, may sleep.
inline void synchronize_rcu(code_place at = code_place::here()) noexcept {
  if constexpr (kernel_checked) checked_might_sleep(at);
  hosted_synchronize_rcu();
}

/// Waits until every call deferred so far has run; process context, may sleep.
inline void rcu_barrier(code_place at = code_place::here()) noexcept {
  if constexpr (kernel_checked) checked_might_sleep(at);
  hosted_rcu_barrier();
}

/// Publishes `value`: whoever follows the pointer sees what was written to it before.
template <typename T>
inline void rcu_assign_pointer(T*& pointer, T* value) noexcept {
  __atomic_store_n(&pointer, value, __ATOMIC_RELEASE);
}

/// Follows a published pointer inside a read side. (Acquire where Linux relies on the dependency;
/// the same instruction on x86, a barrier on ARM.)
template <typename T>
[[nodiscard]] inline T* rcu_dereference(T* const& pointer) noexcept {
  return __atomic_load_n(&pointer, __ATOMIC_ACQUIRE);
}
