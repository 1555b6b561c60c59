// SPDX-License-Identifier: GPL-2.0-only
//
// Drawing lots.
#pragma once

#include <vector>

#include "tests/kernel/small_random.h"

namespace tarvelo::test {

[[nodiscard]] inline u8 any_byte(small_random& random) {
  return static_cast<u8>(random() >> 8);
}
[[nodiscard]] inline u16 any_word(small_random& random) {
  return static_cast<u16>(random() >> 8);
}
[[nodiscard]] inline bool chance(small_random& random, u32 one_in) {
  return random() % one_in == 0;
}

template <typename Item, std::size_t Count>
[[nodiscard]] Item one_of(const Item (&items)[Count], small_random& random) {
  return items[random() % Count];
}

template <typename Item>
[[nodiscard]] const Item& one_of(const std::vector<Item>& items, small_random& random) {
  return items[random() % items.size()];
}

}  // namespace tarvelo::test
