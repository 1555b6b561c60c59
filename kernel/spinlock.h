// SPDX-License-Identifier: GPL-2.0-only
//
// Spinlocks, reader-writer spinlocks and the bottom-half forms of both.
//
// A spinlock is one 4-byte word, 0 when free: memory set to zero is an unlocked lock. The plain
// forms are for softirq and timer context; the _bh forms disable bottom halves first, so that a
// softirq on the same processor cannot meet a lock that its own processor holds.
//
// In the hosted kernel a softirq never interrupts the thread it runs beside, so disabling bottom
// halves is only book-keeping, done in checked builds. A holder can be preempted: whoever waits
// gives up its processor after a short spin.
#pragma once

#include "kernel/checked.h"
#include "kernel/types.h"

struct spinlock {
  u32 slock;
};
using spinlock_t = spinlock;

/// Negative while a writer holds it, else the number of readers.
struct rwlock {
  s32 count;
};
using rwlock_t = rwlock;

static_assert(sizeof(spinlock_t) == 4);

extern "C" {
/// The slow halves: wait until the lock is free and take it.
void hosted_spin_lock_wait(spinlock_t* lock) noexcept;
void hosted_read_lock_wait(rwlock_t* lock) noexcept;
void hosted_write_lock_wait(rwlock_t* lock) noexcept;
}

namespace hosted {

inline void spin_acquire(spinlock_t* lock) noexcept {
  if (__atomic_exchange_n(&lock->slock, 1U, __ATOMIC_ACQUIRE) != 0) hosted_spin_lock_wait(lock);
}

inline void spin_release(spinlock_t* lock) noexcept {
  __atomic_store_n(&lock->slock, 0U, __ATOMIC_RELEASE);
}

inline void note_acquire(const void* lock, lock_kind kind, code_place at) noexcept {
  if constexpr (kernel_checked) checked_lock_acquire(lock, kind, at);
}

inline void note_release(const void* lock, lock_kind kind, code_place at) noexcept {
  if constexpr (kernel_checked) checked_lock_release(lock, kind, at);
}

}  // namespace hosted

inline void spin_lock_init(spinlock_t* lock) noexcept {
  lock->slock = 0;
}

inline void spin_lock(spinlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_acquire(lock, lock_kind::spin, at);
  hosted::spin_acquire(lock);
}

inline void spin_unlock(spinlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_release(lock, lock_kind::spin, at);
  hosted::spin_release(lock);
}

inline void spin_lock_bh(spinlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_acquire(lock, lock_kind::spin_bh, at);
  hosted::spin_acquire(lock);
}

inline void spin_unlock_bh(spinlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_release(lock, lock_kind::spin_bh, at);
  hosted::spin_release(lock);
}

inline void read_lock_bh(rwlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_acquire(lock, lock_kind::read_bh, at);
  s32 readers = __atomic_load_n(&lock->count, __ATOMIC_RELAXED);
  if (readers < 0 || !__atomic_compare_exchange_n(&lock->count, &readers, readers + 1, false,
                                                  __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
    hosted_read_lock_wait(lock);
  }
}

inline void read_unlock_bh(rwlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_release(lock, lock_kind::read_bh, at);
  __atomic_fetch_sub(&lock->count, 1, __ATOMIC_RELEASE);
}

inline void write_lock_bh(rwlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_acquire(lock, lock_kind::write_bh, at);
  s32 idle = 0;
  if (!__atomic_compare_exchange_n(&lock->count, &idle, -1, false, __ATOMIC_ACQUIRE,
                                   __ATOMIC_RELAXED)) {
    hosted_write_lock_wait(lock);
  }
}

inline void write_unlock_bh(rwlock_t* lock, code_place at = code_place::here()) noexcept {
  hosted::note_release(lock, lock_kind::write_bh, at);
  __atomic_store_n(&lock->count, 0, __ATOMIC_RELEASE);
}
