// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/context.h"

#include "kernel/checked_internal.h"
#include "kernel/netdevice_internal.h"
#include "kernel/rcupdate.h"

namespace hosted {

thread_local constinit unsigned own_processor = 0;

namespace {

thread_local constinit unsigned softirq_depth = 0;

}  // namespace

void set_processor(unsigned cpu) noexcept {
  own_processor = cpu < max_processors ? cpu : max_processors - 1;
}

unsigned processor() noexcept {
  return own_processor;
}

bool in_softirq() noexcept {
  return softirq_depth != 0;
}

void enter_softirq(code_place at) noexcept {
  if (softirq_depth++ != 0) return;
  hosted_rcu_read_lock();
  if constexpr (kernel_checked) checked_softirq_enter(at);
}

void leave_softirq(code_place at) noexcept {
  if (softirq_depth == 1) {
    if constexpr (kernel_checked) checked_softirq_leave(at);
    hosted_rcu_read_unlock();
  }
  --softirq_depth;
}

}  // namespace hosted
