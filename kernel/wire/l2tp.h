// SPDX-License-Identifier: GPL-2.0-only
//
// The L2TP data header (RFC 2661, section 3.1). After the first word come, each if its bit is set
// but for the ids: length (2 bytes), tunnel id and session id, sequence numbers (4), offset size.
#pragma once

#include "kernel/wire/endian.h"

namespace wire {

/// Bits of the first word, host order.
namespace l2tp_flag {
inline constexpr u16 control = 0x8000;
inline constexpr u16 length = 0x4000;
inline constexpr u16 sequence = 0x0800;
inline constexpr u16 offset = 0x0200;
inline constexpr u16 priority = 0x0100;
inline constexpr u16 version = 0x0002;
/// What tells a data message that the tunnels here carry: version bit set, and neither control, nor
/// offset, nor priority.
inline constexpr u16 data_mask = control | offset | priority | version;
static_assert(data_mask == 0x8302);
}  // namespace l2tp_flag

inline constexpr u16 l2tp_port = 1701;
inline constexpr u32 l2tp_base_length = 6;  ///< first word and the two ids
inline constexpr u32 l2tp_length_field_length = 2;
inline constexpr u32 l2tp_sequence_length = 4;
inline constexpr u32 l2tp_sent_max_length = l2tp_base_length + l2tp_sequence_length;

/// The header as it is sent: without length field, the sequence numbers last.
struct l2tp_data_hdr {
  be16 flags;  ///< `l2tp_flag`
  be16 tunnel_id;
  be16 session_id;
  be16 ns;  ///< only with `l2tp_flag::sequence`
  be16 nr;  ///< only with `l2tp_flag::sequence`
};
static_assert(sizeof(l2tp_data_hdr) == l2tp_sent_max_length && alignof(l2tp_data_hdr) == 1);
static_assert(offsetof(l2tp_data_hdr, ns) == l2tp_base_length);

/// The two ids of a received header, l2tp_ids_offset() bytes into it.
struct l2tp_ids {
  be16 tunnel_id;
  be16 session_id;
};
static_assert(sizeof(l2tp_ids) == 4 && alignof(l2tp_ids) == 1);

/// The three take the first word in host order.
[[nodiscard]] constexpr bool l2tp_is_data(u16 flags) noexcept {
  return (flags & l2tp_flag::data_mask) == l2tp_flag::version;
}

[[nodiscard]] constexpr u32 l2tp_ids_offset(u16 flags) noexcept {
  return 2 + ((flags & l2tp_flag::length) != 0 ? l2tp_length_field_length : 0);
}

/// Only for a word that passes l2tp_is_data().
[[nodiscard]] constexpr u32 l2tp_header_length(u16 flags) noexcept {
  return l2tp_base_length + ((flags & l2tp_flag::length) != 0 ? l2tp_length_field_length : 0) +
         ((flags & l2tp_flag::sequence) != 0 ? l2tp_sequence_length : 0);
}

}  // namespace wire
