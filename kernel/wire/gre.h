// SPDX-License-Identifier: GPL-2.0-only
//
// The enhanced GRE header of PPTP (RFC 2637, section 4.1). A data packet has a sequence number; an
// acknowledgement number may ride along, or travel alone in a packet without payload.
#pragma once

#include "kernel/wire/endian.h"

namespace wire {

/// Bits of the first byte.
namespace gre_flag {
inline constexpr u8 checksum = 0x80;
inline constexpr u8 routing = 0x40;
inline constexpr u8 key = 0x20;
inline constexpr u8 sequence = 0x10;
inline constexpr u8 pptp_data = key | sequence;  ///< the whole byte of a PPTP data packet
}  // namespace gre_flag

/// Bits of the second byte.
namespace gre_version {
inline constexpr u8 acknowledgement = 0x80;
inline constexpr u8 mask = 0x07;
inline constexpr u8 pptp = 0x01;
}  // namespace gre_version

inline constexpr u16 gre_protocol_ppp = 0x880B;
inline constexpr u32 pptp_gre_base_length = 8;  ///< up to and with the call id
inline constexpr u32 pptp_gre_word_length = 4;  ///< of each number that is present
inline constexpr u32 pptp_gre_data_length = 12;
inline constexpr u32 pptp_gre_max_length = 16;

struct pptp_gre_hdr {
  u8 flags;          ///< `gre_flag`
  u8 version;        ///< `gre_version`
  be16 protocol;     ///< 0x880B
  be16 payload_len;  ///< of what follows the header
  be16 call_id;      ///< the receiver's
  be32 numbers[2];   ///< sequence number if present, then acknowledgement number if present

  [[nodiscard]] constexpr bool has_sequence() const noexcept {
    return (flags & gre_flag::sequence) != 0;
  }
  [[nodiscard]] constexpr bool has_acknowledgement() const noexcept {
    return (version & gre_version::acknowledgement) != 0;
  }
  /// Bytes of the header by the two flags.
  [[nodiscard]] constexpr u32 length() const noexcept {
    return pptp_gre_base_length + (has_sequence() ? pptp_gre_word_length : 0) +
           (has_acknowledgement() ? pptp_gre_word_length : 0);
  }
  /// Only when present.
  [[nodiscard]] constexpr u32 sequence() const noexcept { return numbers[0].host(); }
  [[nodiscard]] constexpr u32 acknowledgement() const noexcept {
    return numbers[has_sequence() ? 1 : 0].host();
  }
  /// True for what may carry a packet: key, sequence number, version 1, PPP, nothing else but an
  /// acknowledgement.
  [[nodiscard]] constexpr bool is_pptp_data() const noexcept {
    return flags == gre_flag::pptp_data &&
           (version & ~gre_version::acknowledgement) == gre_version::pptp &&
           protocol.host() == gre_protocol_ppp;
  }
};
static_assert(sizeof(pptp_gre_hdr) == pptp_gre_max_length && alignof(pptp_gre_hdr) == 1);
static_assert(offsetof(pptp_gre_hdr, call_id) == 6 && offsetof(pptp_gre_hdr, numbers) == 8);

}  // namespace wire
