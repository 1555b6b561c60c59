// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/pptp_frames.h"

#include "kernel/wire/ppp.h"

namespace tarvelo {
namespace {

namespace protocol = wire::ppp_protocol;

/// With address and control bytes in front.
constexpr u16 framed_control[] = {protocol::ipcp, protocol::lcp, protocol::chap, protocol::ccp};

/// Without: the protocol is the first thing in the frame.
constexpr u16 bare_control[] = {
    0x0281,        0x0283,        protocol::ipcp, 0x8029, 0x802B, protocol::ipv6cp, 0x80FB,
    protocol::ccp, protocol::lcp, protocol::pap,  0xC025, 0xC029, protocol::chap};

[[nodiscard]] bool is_framed(const u8* p) {
  return p[0] == wire::ppp_address && p[1] == wire::ppp_control;
}

template <std::size_t Count>
[[nodiscard]] bool is_one_of(u16 value, const u16 (&values)[Count]) {
  for (const u16 candidate : values) {
    if (candidate == value) return true;
  }
  return false;
}

[[nodiscard]] u16 word_at(const u8* p) {
  return static_cast<u16>(p[0] << 8 | p[1]);
}

}  // namespace

int _vok_pptp_compress_packet(const u8* p) {
  if (p[0] == protocol::compressed_datagram) return 1;
  return is_framed(p) && p[3] == protocol::compressed_datagram ? 1 : 0;
}

int _vok_pptp_control_packet(const u8* p) {
  const bool control =
      is_framed(p) ? is_one_of(word_at(p + wire::ppp_address_control_length), framed_control)
                   : is_one_of(word_at(p), bare_control);
  return control ? 1 : 0;
}

}  // namespace tarvelo
