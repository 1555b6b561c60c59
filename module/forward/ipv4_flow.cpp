// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/ipv4_flow.h"

namespace tarvelo {
namespace {

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
  if (const fate r = read_bounds(skb, tunnel->inner, outer_end, packet); r != fate::forward) {
    return r;
  }
  return fragment_kind_of(packet->ip) == fragment_kind::none ? fate::forward : fate::fragment;
}

}  // namespace tarvelo
