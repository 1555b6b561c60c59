// SPDX-License-Identifier: GPL-2.0-only
//
// The same numbers in every run, 32 bits each: xorshift (Marsaglia, 2003).
#pragma once

#include "kernel/types.h"

class small_random {
 public:
  explicit small_random(u32 seed) noexcept : state_(seed * 2654435761U + 1) {}

  u32 operator()() noexcept {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_;
  }

 private:
  u32 state_;
};
