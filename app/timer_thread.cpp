// SPDX-License-Identifier: GPL-2.0-only
#include "app/timer_thread.h"

#include <chrono>

#include "app/thread.h"
#include "kernel/context.h"
#include "kernel/jiffies.h"

namespace tarvelo::app {

namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds busy_tick{1};
constexpr std::chrono::milliseconds idle_tick{10};
/// Ticks without a frame after which the router counts as idle.
constexpr unsigned ticks_until_idle = 100;

}  // namespace

timer_thread::timer_thread(unsigned processor, port_set& ports)
    : ports_(ports), thread_(start_thread([this, processor] { work(processor); })) {}

timer_thread::~timer_thread() {
  stop_.store(true, std::memory_order_release);
  thread_.join();
}

void timer_thread::work(unsigned processor) {
  hosted::set_processor(processor);
  const auto beginning = clock::now();
  u64 frames_seen = 0;
  unsigned quiet_ticks = 0;
  while (!stop_.load(std::memory_order_acquire)) {
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - beginning);
    kernel_clock::advance_to(static_cast<u32>(elapsed.count()));
    ports_.flush();

    const u64 frames = ports_.received();
    quiet_ticks = frames == frames_seen ? quiet_ticks + 1 : 0;
    frames_seen = frames;
    std::this_thread::sleep_for(quiet_ticks < ticks_until_idle ? busy_tick : idle_tick);
  }
}

}  // namespace tarvelo::app
