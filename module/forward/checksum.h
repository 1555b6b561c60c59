// SPDX-License-Identifier: GPL-2.0-only
//
// Incremental Internet checksums (RFC 1624). Sums are ones'-complement sums of 16-bit words, which
// need no byte swapping: everything here is the stored bytes read as native words.
//
// A change of a field is a partial sum: the complement of the old value plus the new one. Partial
// sums are congruent to the change and, but for a field of ones that becomes 0, never 0, so several
// of them may be added before the result is folded into a stored checksum once.
#pragma once

#include "kernel/wire/endian.h"

namespace tarvelo {

/// A sum of 32 bits folded to 16: the halves are added both ways round, and the carry of the lower
/// pair goes into the upper, where the result is. Only 0 gives 0.
[[nodiscard]] constexpr u32 fold_sum(u32 sum) {
  return (sum + (sum << 16 | sum >> 16)) >> 16;
}

/// The ones'-complement sum of two words, not folded.
[[nodiscard]] constexpr u32 add_words(u32 a, u32 b) {
  u32 sum = 0;
  const bool carry = __builtin_add_overflow(a, b, &sum);
  return sum + u32{carry};
}

/// The sum of two words, folded to 16 bits and not complemented.
[[nodiscard]] constexpr u32 vok_do_csum(const u32 (&words)[2]) {
  return fold_sum(add_words(words[0], words[1]));
}

/// The partial sum of a field that changes from `before` to `after`; a 16-bit field is extended
/// with zeroes.
[[nodiscard]] constexpr u32 checksum_change(u32 before, u32 after) {
  return vok_do_csum({~before, after});
}

/// The partial sum of a 16-bit field: nothing to fold. 0 only for 0xFFFF that becomes 0.
[[nodiscard]] constexpr u32 checksum_change_16(u16 before, u16 after) {
  return u32{0xFFFF} - before + after;
}

/// A stored checksum after `change`, the sum of up to 0xFFFF partial sums.
[[nodiscard]] constexpr u16 checksum_changed(u16 stored, u32 change) {
  const u32 complement_added = change + 0xFFFF - stored;
  return static_cast<u16>(~fold_sum(complement_added));
}

/// The same for UDP, where a stored 0 means that the datagram carries no checksum: it stays 0, and
/// a sum that comes out as 0 is stored as 0xFFFF, which is the same number.
[[nodiscard]] constexpr u16 udp_checksum_changed(u16 stored, u32 change) {
  if (stored == 0) return 0;
  const u16 changed = checksum_changed(stored, change);
  return changed != 0 ? changed : 0xFFFF;
}

}  // namespace tarvelo
