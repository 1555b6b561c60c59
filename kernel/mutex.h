// SPDX-License-Identifier: GPL-2.0-only
//
// Sleeping lock, process context only. Zeroed memory is an unlocked mutex.
#pragma once

#include "kernel/types.h"

struct mutex {
  u32 state;
};

extern "C" {
void hosted_mutex_lock(mutex* lock, const code_place* at) noexcept;
/// 0, or -EINTR when the wait was interrupted by a signal to the calling task.
[[nodiscard]] int hosted_mutex_lock_interruptible(mutex* lock, const code_place* at) noexcept;
void hosted_mutex_unlock(mutex* lock, const code_place* at) noexcept;
/// Makes the calling thread's next interruptible wait fail as if a signal were pending.
void hosted_set_signal_pending() noexcept;
}

inline void mutex_lock(mutex* lock, code_place at = code_place::here()) noexcept {
  hosted_mutex_lock(lock, &at);
}

[[nodiscard]] inline int mutex_lock_interruptible(mutex* lock,
                                                  code_place at = code_place::here()) noexcept {
  return hosted_mutex_lock_interruptible(lock, &at);
}

inline void mutex_unlock(mutex* lock, code_place at = code_place::here()) noexcept {
  hosted_mutex_unlock(lock, &at);
}
