// SPDX-License-Identifier: GPL-2.0-only
//
// Timers. A timer runs once, in softirq context, when `jiffies` reaches its expiry; it may be set
// again from its own function. All calls are safe in any context and from several processors at
// once, except del_timer_sync(), which waits and must not be called from softirq context or with a
// lock held that the timer's function takes.
//
// A pending timer's expiry changes only through these functions. Putting an expiry off is one store
// and takes no lock: the timer stays where it is in the wheel and moves on when it is met there. So
// a packet path may refresh a timer for every packet.
#pragma once

#include "kernel/list.h"
#include "kernel/types.h"

struct timer_list {
  list_head entry;  ///< linked while pending; both links null otherwise
  u32 expires;      ///< jiffies
  void (*function)(unsigned long data);
  unsigned long data;
};

extern "C" {
void setup_timer(timer_list* timer, void (*function)(unsigned long data),
                 unsigned long data) noexcept;
/// Starts a timer that is not pending at its `expires`.
void add_timer(timer_list* timer) noexcept;
/// Sets the expiry, starting the timer if need be. 1 when it was pending, else 0.
int mod_timer(timer_list* timer, u32 expires) noexcept;
/// Sets the expiry of a pending timer only. 1 when it was pending, else 0.
int mod_timer_pending(timer_list* timer, u32 expires) noexcept;
/// Stops a pending timer. 1 when it was pending, else 0. Its function may still be running.
int del_timer(timer_list* timer) noexcept;
int hosted_del_timer_sync(timer_list* timer, const code_place* at) noexcept;
}

/// The same, and waits for a running function to end.
inline int del_timer_sync(timer_list* timer, code_place at = code_place::here()) noexcept {
  return hosted_del_timer_sync(timer, &at);
}

[[nodiscard]] inline bool timer_pending(const timer_list* timer) noexcept {
  return read_once(timer->entry.next) != nullptr;
}
