// SPDX-License-Identifier: GPL-2.0-only
//
// Processors and contexts of the hosted kernel. A thread that carries packets is one processor's
// softirq context while it is inside a softirq_scope; every other thread is process context. The
// scope is an RCU read side; leaving it is where a packet worker lets grace periods pass, so keep
// it to one batch of frames.
#pragma once

#include "kernel/checked.h"
#include "kernel/types.h"

namespace hosted {

inline constexpr unsigned max_processors = 64;

/// Gives the calling thread a processor number, below max_processors; 0 when never called. Two
/// threads may share one number only if they are never both in softirq context.
void set_processor(unsigned cpu) noexcept;
[[nodiscard]] unsigned processor() noexcept;

[[nodiscard]] bool in_softirq() noexcept;

void enter_softirq(code_place at) noexcept;
void leave_softirq(code_place at) noexcept;

/// The calling thread is in softirq context for the life of this object. May be nested.
class softirq_scope {
 public:
  explicit softirq_scope(code_place at = code_place::here()) noexcept : at_(at) {
    enter_softirq(at_);
  }
  ~softirq_scope() { leave_softirq(at_); }
  softirq_scope(const softirq_scope&) = delete;
  softirq_scope& operator=(const softirq_scope&) = delete;

 private:
  code_place at_;
};

}  // namespace hosted
