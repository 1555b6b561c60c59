// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/mutex.h"

#include <atomic>

#include "kernel/checked.h"
#include "kernel/errno.h"

namespace {

constexpr u32 free_mutex = 0;
constexpr u32 held = 1;
constexpr u32 held_with_waiters = 2;

thread_local constinit bool signal_pending = false;

void acquire(mutex* lock) noexcept {
  const std::atomic_ref<u32> state(lock->state);
  u32 seen = free_mutex;
  if (state.compare_exchange_strong(seen, held, std::memory_order_acquire)) return;
  while (state.exchange(held_with_waiters, std::memory_order_acquire) != free_mutex) {
    state.wait(held_with_waiters, std::memory_order_relaxed);
  }
}

}  // namespace

extern "C" {

void hosted_mutex_lock(mutex* lock, const code_place* at) noexcept {
  if constexpr (kernel_checked) checked_lock_acquire(lock, lock_kind::mutex, *at);
  acquire(lock);
}

int hosted_mutex_lock_interruptible(mutex* lock, const code_place* at) noexcept {
  if constexpr (kernel_checked) checked_might_sleep(*at);
  if (signal_pending) {
    signal_pending = false;
    return -EINTR;
  }
  hosted_mutex_lock(lock, at);
  return 0;
}

void hosted_mutex_unlock(mutex* lock, const code_place* at) noexcept {
  if constexpr (kernel_checked) checked_lock_release(lock, lock_kind::mutex, *at);
  const std::atomic_ref<u32> state(lock->state);
  if (state.exchange(free_mutex, std::memory_order_release) == held_with_waiters) {
    state.notify_one();
  }
}

void hosted_set_signal_pending() noexcept {
  signal_pending = true;
}

}  // extern "C"
