// SPDX-License-Identifier: GPL-2.0-only
//
// The real clock: a thread that moves `jiffies` on with CLOCK_MONOTONIC and runs the timers that
// are due, in a softirq context of its own.
//
// While frames come in it ticks every millisecond. Without any it ticks every ten, so that an idle
// router hardly wakes up; timers are then up to ten milliseconds late, which their users do not
// notice.
//
// Started by the constructor, stopped and joined by the destructor.
#pragma once

#include <atomic>
#include <thread>

#include "app/port_set.h"

namespace tarvelo::app {

class timer_thread {
 public:
  /// `jiffies` counts from now on, from 0. `processor` is no other thread's.
  timer_thread(unsigned processor, port_set& ports);
  ~timer_thread();
  timer_thread(const timer_thread&) = delete;
  timer_thread& operator=(const timer_thread&) = delete;

 private:
  void work(unsigned processor);

  port_set& ports_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace tarvelo::app
