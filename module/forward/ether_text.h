// SPDX-License-Identifier: GPL-2.0-only
//
// MAC addresses as text.
#pragma once

#include "kernel/types.h"

namespace tarvelo {

inline constexpr std::size_t ether_text_size = 18;  ///< 17 characters and the NUL

/// Writes six two-digit lower-case hexadecimal groups with colons between them; `text` holds at
/// least `ether_text_size` bytes. Returns `text`.
char* vok_ether_ntoa(const u8* mac, char* text);

}  // namespace tarvelo
