// SPDX-License-Identifier: GPL-2.0-only
//
// An input taken apart: choices first to last. When it is used up every further choice is 0.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>

#include "kernel/types.h"

namespace tarvelo::fuzz {

class input_bytes {
 public:
  input_bytes(const u8* data, std::size_t size) : rest_(data, size) {}

  [[nodiscard]] bool empty() const { return rest_.empty(); }

  u8 byte() {
    if (rest_.empty()) return 0;
    const u8 value = rest_.front();
    rest_ = rest_.subspan(1);
    return value;
  }
  u16 word() {
    const u8 high = byte();
    return static_cast<u16>(high << 8 | byte());
  }
  /// One of `options`, by the next byte.
  template <typename Options>
  auto& one_of(Options& options) {
    return options[byte() % std::size(options)];
  }
  /// All that is left, or the next `most` bytes of it.
  std::span<const u8> bytes(std::size_t most = static_cast<std::size_t>(-1)) {
    const std::span<const u8> taken = rest_.first(std::min(most, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }

 private:
  std::span<const u8> rest_;
};

inline constexpr const char* port_names[] = {"lan0", "lan1", "lan2", "lan3", "wan0", "tun0"};

}  // namespace tarvelo::fuzz
