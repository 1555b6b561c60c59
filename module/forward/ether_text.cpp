// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/ether_text.h"

#include "kernel/wire/ethernet.h"

namespace tarvelo {

char* vok_ether_ntoa(const u8* mac, char* text) {
  static constexpr char digits[] = "0123456789abcdef";
  char* out = text;
  for (u32 i = 0; i < wire::mac_length; ++i) {
    if (i != 0) *out++ = ':';
    *out++ = digits[mac[i] >> 4];
    *out++ = digits[mac[i] & 0xF];
  }
  *out = '\0';
  return text;
}

}  // namespace tarvelo
