// SPDX-License-Identifier: GPL-2.0-only
//
// Socket buffers of a checked build. Each block is preceded by a tag that says whether the buffer
// is live and where it was freed; a freed block is filled with a pattern and kept for a while, so
// that a second free or a use is named with both places, and a write to it is found when it leaves.
// Under AddressSanitizer the kept block is poisoned as well. Any context; own lock, innermost.
#pragma once

#include "kernel/skbuff.h"

namespace hosted {

/// A block for a record and `room` bytes; null without memory.
[[nodiscard]] sk_buff* quarantine_alloc(u32 room) noexcept;
/// Takes a live block.
void quarantine_free(sk_buff* skb, code_place at) noexcept;
/// Ends the program with `what`, `at` and the place of the free unless the buffer is live.
void quarantine_check(const sk_buff* skb, const char* what, code_place at) noexcept;

}  // namespace hosted
