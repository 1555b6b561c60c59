// SPDX-License-Identifier: GPL-2.0-only
//
// What the checked build watches. A real kernel can be built to check itself; this one does in
// builds with TARVELO_CHECKED, and the first fault ends the program with one message that names
// what was done wrong and both places: where it was done and where the earlier step was.
//
// Watched: locks taken twice, in a cyclic order, released by another context, or left held at the
// end of a softirq; sleeping in atomic context; buffers freed twice or used after free; references
// dropped below zero; RCU read sides left open, and waiting for a grace period inside one.
//
// Only the hosted kernel and its inline wrappers call these; in other builds nothing does.
#pragma once

#include "kernel/types.h"

/// How a lock is taken, for the checks that depend on it.
enum class lock_kind : u8 {
  spin,
  spin_bh,
  read_bh,
  write_bh,
  mutex,
};

extern "C" {
void checked_lock_acquire(const void* lock, lock_kind kind, code_place at) noexcept;
void checked_lock_release(const void* lock, lock_kind kind, code_place at) noexcept;
/// For tests: `seen` is told of each lock that the calling thread takes and lets go, just before it
/// does; null for nobody. It takes no locks itself. Checked builds only.
void checked_observe_locks(void (*seen)(const void* lock, bool taken)) noexcept;
/// Forgets a lock whose memory is about to be freed or used for another lock.
void checked_lock_forget(const void* lock, code_place at) noexcept;
/// Ends the program when the caller may not sleep.
void checked_might_sleep(code_place at) noexcept;
void checked_rcu_enter(code_place at) noexcept;
void checked_rcu_exit(code_place at) noexcept;
/// Ends the program unless the caller is inside an RCU read side or softirq context.
void checked_rcu_held(code_place at) noexcept;
/// Ends the program with `what`, `at`, and the earlier place when it has one (`file` not null).
[[noreturn]] void checked_fault(const char* what, code_place at, code_place earlier) noexcept;
}
