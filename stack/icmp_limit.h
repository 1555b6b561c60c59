// SPDX-License-Identifier: GPL-2.0-only
//
// The limit on the ICMP errors that the router originates (RFC 1812, 4.3.2.8): a token bucket, so
// that a short burst (a path being traced) is answered whole while a flood of bad packets costs no
// more than a bounded share of the link that the answers take.
//
// Time is jiffies. Guarded by the stack's lock.
#pragma once

#include <algorithm>

#include "kernel/jiffies.h"

namespace tarvelo::stack {

class icmp_limit {
 public:
  static constexpr u32 burst = 50;            ///< errors
  static constexpr u32 interval = HZ / 1000;  ///< jiffies that earn one more error
  static_assert(interval > 0);

  /// True when an error may be sent now; it is then spent.
  [[nodiscard]] bool spend(u32 now) noexcept {
    const u32 earned = (now - since_) / interval;
    since_ += earned * interval;
    tokens_ = earned >= burst ? burst : std::min(burst, tokens_ + earned);
    if (tokens_ == 0) return false;
    --tokens_;
    return true;
  }

 private:
  u32 tokens_ = burst;
  u32 since_ = jiffies;
};

}  // namespace tarvelo::stack
