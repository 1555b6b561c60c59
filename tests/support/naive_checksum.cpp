// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/naive_checksum.h"

namespace tarvelo::test {

naive_sum& naive_sum::add(std::span<const u8> data) {
  for (std::size_t i = 0; i < data.size(); i += 2) {
    const u32 low = i + 1 < data.size() ? data[i + 1] : 0U;
    sum_ += (static_cast<u32>(data[i]) << 8) + low;
  }
  return *this;
}

naive_sum& naive_sum::add_word(u16 host) {
  sum_ += host;
  return *this;
}

u16 naive_sum::checksum() const {
  u64 folded = sum_;
  while (folded > 0xFFFF)
    folded = (folded & 0xFFFF) + (folded >> 16);
  return static_cast<u16>(~folded);
}

naive_sum pseudo_header(std::span<const u8> addresses, u8 protocol, u32 length) {
  naive_sum sum;
  sum.add(addresses);
  sum.add_word(protocol);
  sum.add_word(static_cast<u16>(length >> 16)).add_word(static_cast<u16>(length));
  return sum;
}

}  // namespace tarvelo::test
