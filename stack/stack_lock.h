// SPDX-License-Identifier: GPL-2.0-only
//
// The one lock of the stack: everything but the fast path and the end of a connection runs under
// it. Taken in softirq context (frames, timers) and in process context; outermost of all locks, so
// it may be held while calling the module. Never taken by a connection's destroy function, which
// can run on any packet worker.
#pragma once

#include "kernel/context.h"
#include "kernel/spinlock.h"

namespace tarvelo::stack {

inline spinlock_t stack_lock{};

/// Holds the stack's lock, inside a softirq scope, for the life of the object.
class stack_guard {
 public:
  explicit stack_guard(code_place at = code_place::here()) noexcept : softirq_(at), at_(at) {
    spin_lock_bh(&stack_lock, at_);
  }
  ~stack_guard() { spin_unlock_bh(&stack_lock, at_); }
  stack_guard(const stack_guard&) = delete;
  stack_guard& operator=(const stack_guard&) = delete;

 private:
  hosted::softirq_scope softirq_;
  code_place at_;
};

}  // namespace tarvelo::stack
