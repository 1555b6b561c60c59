// SPDX-License-Identifier: GPL-2.0-only
#include "ports/checksum.h"

#include <cstring>

#include "kernel/wire/endian.h"

namespace tarvelo::ports {

namespace {

u16 fold(u64 sum) noexcept {
  while (sum >> 16 != 0)
    sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<u16>(sum);
}

}  // namespace

u16 ones_complement_sum(std::span<const u8> bytes, u16 sum) noexcept {
  // Words are added as they are stored and the result is swapped once: the end-around carry makes
  // the sum the same but for its byte order. Wide words halve the additions twice.
  u64 total = 0;
  while (bytes.size() >= sizeof(u32)) {
    u32 word = 0;
    std::memcpy(&word, bytes.data(), sizeof word);
    total += word;
    bytes = bytes.subspan(sizeof word);
  }
  if (!bytes.empty()) {
    u32 tail = 0;
    std::memcpy(&tail, bytes.data(), bytes.size());
    total += tail;
  }
  return add_sums(wire::ntohs(fold(total)), sum);
}

u16 pseudo_header_sum(std::span<const u8> addresses, u8 protocol, u32 length) noexcept {
  const u16 rest = add_sums(protocol, fold(length));
  return ones_complement_sum(addresses, rest);
}

}  // namespace tarvelo::ports
