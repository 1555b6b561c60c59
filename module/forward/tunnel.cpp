// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/tunnel.h"

#include "kernel/wire/gre.h"
#include "kernel/wire/l2tp.h"
#include "kernel/wire/ppp.h"
#include "module/forward/frame.h"

namespace tarvelo {
namespace {

/// Linear bytes of the frame below which nobody looks for a packet inside.
constexpr u32 shortest_pptp_frame = 82;
constexpr u32 shortest_l2tp_frame = 87;

/// Bytes of PPP framing in front of an IPv4 packet at that offset; 0 when it is something else.
[[nodiscard]] u32 ipv4_framing(const sk_buff* skb, u32 at, u32 end) {
  if (at >= end) return 0;
  const wire::ppp_framing framing = wire::read_ppp_framing(skb->data + at, end - at);
  return framing.protocol == wire::ppp_protocol::ipv4 ? framing.length : 0;
}

}  // namespace

fate find_pptp(const sk_buff* skb, u32 gre, u32 end, tunnel_header* tunnel) {
  if (skb_headlen(skb) < shortest_pptp_frame) return fate::truncated;
  if (gre + wire::pptp_gre_data_length > end) return fate::truncated;
  const auto* header = header_at<const wire::pptp_gre_hdr>(skb, gre);
  if (!header->is_pptp_data()) return fate::tunnelled;
  const u32 ppp = gre + header->length();
  const u32 framing = ipv4_framing(skb, ppp, end);
  if (framing == 0) return fate::tunnelled;
  *tunnel = {tunnel_kind::pptp, gre, ppp + framing};
  return fate::forward;
}

bool find_l2tp(const sk_buff* skb, u32 payload, u32 end, tunnel_header* tunnel) {
  if (skb_headlen(skb) < shortest_l2tp_frame || payload + sizeof(wire::be16) > end) return false;
  const u16 word = header_at<wire::be16>(skb, payload)->host();
  if (!wire::l2tp_is_data(word)) return false;
  const u32 ppp = payload + wire::l2tp_header_length(word);
  const u32 framing = ipv4_framing(skb, ppp, end);
  if (framing == 0) return false;
  *tunnel = {tunnel_kind::l2tp, payload, ppp + framing};
  return true;
}

}  // namespace tarvelo
