// SPDX-License-Identifier: GPL-2.0-only
//
// Time. `jiffies` counts milliseconds, 32 bits wide: it wraps after 49.7 days, so two instants are
// compared by the sign of their difference only.
//
// A clock drives it: the command's real clock, or the virtual one of a replay or a test. Nothing in
// the kernel reads the time from anywhere else.
#pragma once

#include "kernel/types.h"

inline constexpr u32 HZ = 1000;

extern "C" volatile u32 jiffies;

/// True when instant `a` is later than `b`; right while they are less than 2^31 jiffies apart.
[[nodiscard]] constexpr bool time_after(u32 a, u32 b) noexcept {
  return static_cast<s32>(b - a) < 0;
}

[[nodiscard]] constexpr bool time_after_eq(u32 a, u32 b) noexcept {
  return static_cast<s32>(a - b) >= 0;
}

/// True while fewer than `span` jiffies have passed from `then` to `now`. For a `then` that nobody
/// looks at for weeks: the comparisons above hold it for the future once it is 2^31 jiffies old.
[[nodiscard]] constexpr bool time_within(u32 now, u32 then, u32 span) noexcept {
  return now - then < span;
}

namespace kernel_clock {

/// Sets `jiffies` without running timers; only while no timer is pending.
void start_at(u32 now) noexcept;

/// Moves `jiffies` on to `now`, one tick at a time where a timer is due, and runs the timers that
/// expire on the way, in order, in a softirq context of their own. One caller at a time.
void advance_to(u32 now) noexcept;

}  // namespace kernel_clock
