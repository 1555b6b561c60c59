// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/spinlock.h"

#include <sched.h>

namespace {

/// Looks at a lock before the processor is given to whoever may be holding it.
constexpr unsigned spins_before_yield = 64;

/// A waiting writer takes this off the count: new readers stay out, those inside are still counted.
constexpr s32 writer_waits = 0x40000000;

inline void relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
  asm volatile("yield");
#endif
}

/// Calls `ready` until it is true, spinning first and then letting other threads run.
template <typename Condition>
void wait_until(Condition ready) noexcept {
  for (unsigned i = 0; !ready(); ++i) {
    if (i < spins_before_yield) {
      relax();
    } else {
      sched_yield();
    }
  }
}

}  // namespace

extern "C" {

void hosted_spin_lock_wait(spinlock_t* lock) noexcept {
  wait_until([lock] {
    return read_once(lock->slock) == 0 &&
           __atomic_exchange_n(&lock->slock, 1U, __ATOMIC_ACQUIRE) == 0;
  });
}

void hosted_read_lock_wait(rwlock_t* lock) noexcept {
  wait_until([lock] {
    s32 readers = read_once(lock->count);
    return readers >= 0 && __atomic_compare_exchange_n(&lock->count, &readers, readers + 1, false,
                                                       __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
  });
}

void hosted_write_lock_wait(rwlock_t* lock) noexcept {
  wait_until([lock] {
    s32 readers = read_once(lock->count);
    return readers >= 0 &&
           __atomic_compare_exchange_n(&lock->count, &readers, readers - writer_waits, false,
                                       __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
  });
  wait_until([lock] { return __atomic_load_n(&lock->count, __ATOMIC_ACQUIRE) == -writer_waits; });
}

}  // extern "C"
