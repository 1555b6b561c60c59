// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/ipv4_flow.h"

#include "kernel/wire/gre.h"
#include "kernel/wire/l2tp.h"

namespace tarvelo {
namespace {

/// GRE says how much follows its header.
[[nodiscard]] bool pptp_is_whole(const sk_buff* skb, u32 header, u32 end) {
  const auto* gre = header_at<const wire::pptp_gre_hdr>(skb, header);
  return header + gre->length() + gre->payload_len.host() <= end;
}

/// UDP says how long the datagram is, and the message may say it of itself.
[[nodiscard]] bool l2tp_is_whole(const sk_buff* skb, u32 header, u32 end) {
  const u32 udp = header - u32{sizeof(wire::udphdr)};
  const u32 datagram_end = udp + header_at<const wire::udphdr>(skb, udp)->len.host();
  if (datagram_end > end) return false;
  const auto* words = header_at<const wire::be16>(skb, header);
  if ((words[0].host() & wire::l2tp_flag::length) == 0) return true;
  return header + words[1].host() <= datagram_end;
}

/// All that the headers of a tunnel promise is in the packet that carries it, which ends at `end`.
[[nodiscard]] bool is_whole(const sk_buff* skb, const tunnel_header& tunnel, u32 end) {
  return tunnel.kind == tunnel_kind::pptp ? pptp_is_whole(skb, tunnel.header, end)
                                          : l2tp_is_whole(skb, tunnel.header, end);
}

fate find_tunnel(const sk_buff* skb, const packet_bounds& outer, tunnel_header* tunnel) {
  const u32 end = readable_end(skb, outer);
  if (outer.ip->protocol == wire::ip_protocol::gre) return find_pptp(skb, outer.l4, end, tunnel);
  if (outer.ip->protocol == wire::ip_protocol::udp) {
    (void)find_l2tp(skb, outer.l4 + u32{sizeof(wire::udphdr)}, end, tunnel);
  }
  return fate::forward;
}

}  // namespace

fate enter_tunnel(const sk_buff* skb, tunnel_header* tunnel, packet_bounds* packet) {
  if (const fate r = find_tunnel(skb, *packet, tunnel); r != fate::forward) return r;
  if (tunnel->kind == tunnel_kind::none) return fate::forward;
  const u32 outer_end = packet->end;
  if (!is_whole(skb, *tunnel, outer_end)) return fate::truncated;
  if (const fate r = read_bounds(skb, tunnel->inner, outer_end, packet); r != fate::forward) {
    return r;
  }
  return fragment_kind_of(packet->ip) == fragment_kind::none ? fate::forward : fate::fragment;
}

}  // namespace tarvelo
