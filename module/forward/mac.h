// SPDX-License-Identifier: GPL-2.0-only
//
// MAC addresses as the packet paths handle them: compared and copied as words, at any alignment.
#pragma once

#include "kernel/wire/ethernet.h"

namespace tarvelo {

[[nodiscard]] inline bool same_mac(const u8* a, const u8* b) {
  u32 a_front, b_front;
  u16 a_back, b_back;
  __builtin_memcpy(&a_front, a, sizeof(a_front));
  __builtin_memcpy(&b_front, b, sizeof(b_front));
  __builtin_memcpy(&a_back, a + sizeof(a_front), sizeof(a_back));
  __builtin_memcpy(&b_back, b + sizeof(b_front), sizeof(b_back));
  return a_front == b_front && a_back == b_back;
}

inline void copy_mac(u8* to, const u8* from) {
  __builtin_memcpy(to, from, wire::mac_length);
}

}  // namespace tarvelo
