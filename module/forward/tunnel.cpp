// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/tunnel.h"

#include "kernel/wire/endian.h"
#include "module/forward/frame.h"

namespace tarvelo {
namespace {

/// The flags and version word: a data message (no T bit) of version 2 or 3 without offset and
/// priority.
constexpr u16 kind_mask = 0x8302;
constexpr u16 plain_data_message = 0x0002;
constexpr u16 length_present = 0x4000;
constexpr u16 sequence_present = 0x0800;

/// Ethernet, IP, UDP, the shortest L2TP and PPP headers, an inner packet with ports.
constexpr u32 shortest_tunnel_frame = 87;

constexpr u8 ppp_address = 0xFF;
constexpr u8 ppp_control = 0x03;
constexpr u8 ppp_ipv4 = 0x21;

[[nodiscard]] constexpr u32 l2tp_length(u16 word) {
  u32 length = 6;
  if ((word & length_present) != 0) length += 2;
  if ((word & sequence_present) != 0) length += 4;
  return length;
}

/// Address and control may be left out; the protocol is one odd byte or two bytes.
[[nodiscard]] bool is_ppp_ipv4(const u8* ppp) {
  if (ppp[0] == ppp_address) {
    if (ppp[1] != ppp_control) return false;
    ppp += 2;
  }
  return ppp[0] == ppp_ipv4 || (ppp[0] == 0 && ppp[1] == ppp_ipv4);
}

}  // namespace

bool carries_l2tp(const sk_buff* skb, u32 payload) {
  constexpr u32 longest_ppp_header = 4;
  const u32 linear = skb_headlen(skb);
  if (linear < shortest_tunnel_frame || linear < payload + sizeof(wire::be16)) return false;
  const u16 word = header_at<wire::be16>(skb, payload)->host();
  if ((word & kind_mask) != plain_data_message) return false;
  const u32 ppp = payload + l2tp_length(word);
  return ppp + longest_ppp_header <= linear && is_ppp_ipv4(skb->data + ppp);
}

}  // namespace tarvelo
