// SPDX-License-Identifier: GPL-2.0-only
//
// PPP framing (RFC 1661, RFC 1662) as tunnels carry it: address and control bytes 0xFF 0x03, which
// either side may leave out, then the protocol, whose leading zero byte may be left out as well. An
// odd first protocol byte is the whole protocol.
#pragma once

#include "kernel/wire/ethernet.h"

namespace wire {

inline constexpr u8 ppp_address = 0xFF;  ///< all stations
inline constexpr u8 ppp_control = 0x03;  ///< unnumbered information
inline constexpr u32 ppp_address_control_length = 2;
inline constexpr u32 ppp_max_length = 4;  ///< address, control, two bytes of protocol

namespace ppp_protocol {
inline constexpr u16 compressed_datagram = 0x00FD;
inline constexpr u16 ipcp = 0x8021;
inline constexpr u16 ipv6cp = 0x8057;
inline constexpr u16 ccp = 0x80FD;
inline constexpr u16 lcp = 0xC021;
inline constexpr u16 pap = 0xC023;
inline constexpr u16 chap = 0xC223;
}  // namespace ppp_protocol

/// What the start of a PPP frame says.
struct ppp_framing {
  u32 length;    ///< bytes before the payload; 0: not a PPP frame, or cut short
  u16 protocol;  ///< host order
};

/// Reads the framing at `frame`, of which `available` bytes may be read.
[[nodiscard]] constexpr ppp_framing read_ppp_framing(const u8* frame, u32 available) noexcept {
  u32 at = 0;
  if (available > 0 && frame[0] == ppp_address) {
    if (available < ppp_address_control_length || frame[1] != ppp_control) return {0, 0};
    at = ppp_address_control_length;
  }
  if (at >= available) return {0, 0};
  if ((frame[at] & 1) != 0) return {at + 1, frame[at]};
  if (at + 2 > available) return {0, 0};
  return {at + 2, static_cast<u16>(frame[at] << 8 | frame[at + 1])};
}

/// What one side leaves out of the framing it sends; the two are negotiated apart.
struct ppp_omissions {
  bool address_control;
  bool protocol_high_byte;  ///< only for protocols below 0x0100
};

[[nodiscard]] constexpr u32 ppp_framing_length(ppp_omissions omit) noexcept {
  return (omit.address_control ? 0U : ppp_address_control_length) +
         (omit.protocol_high_byte ? 1U : 2U);
}

/// Writes ppp_framing_length(omit) bytes.
constexpr void write_ppp_framing(u8* to, u16 protocol, ppp_omissions omit) noexcept {
  if (!omit.address_control) {
    *to++ = ppp_address;
    *to++ = ppp_control;
  }
  if (!omit.protocol_high_byte) *to++ = static_cast<u8>(protocol >> 8);
  *to = static_cast<u8>(protocol);
}

}  // namespace wire
