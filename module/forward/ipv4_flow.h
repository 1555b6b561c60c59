// SPDX-License-Identifier: GPL-2.0-only
//
// The flow of an IPv4 packet, which may be inside a tunnel. A plain TCP packet is read here, where
// the routed path is compiled; looking for a tunnel is a step aside.
#pragma once

#include "module/forward/flow.h"
#include "module/forward/ipv4_fragment.h"
#include "module/ipc/table.h"

namespace tarvelo {

using ipv4_flow = packet_flow<flow_key>;

/// An IPv4 packet in the data: its header, where what follows it begins, and where the packet ends,
/// by its own length. All of it is linear, but for `end`, behind the header.
struct packet_bounds {
  const wire::iphdr* ip;
  u32 l4;
  u32 end;
};

/// Version, header length and total length, against each other and against the `limit` of the
/// packet or frame around it. Padding may follow.
inline fate read_bounds(const sk_buff* skb, u32 l3, u32 limit, packet_bounds* packet) {
  const u32 linear = skb_headlen(skb);
  if (l3 + wire::ipv4_min_length > linear) return fate::truncated;
  const auto* ip = header_at<const wire::iphdr>(skb, l3);
  if (ip->version() != 4) return fate::version_mismatch;
  const u32 header_length = ip->header_length();
  const u32 total_length = ip->tot_len.host();
  if (header_length < wire::ipv4_min_length || total_length < header_length) {
    return fate::bad_header;
  }
  *packet = {ip, l3 + header_length, l3 + total_length};
  return packet->end <= limit && packet->l4 <= linear ? fate::forward : fate::truncated;
}

/// As much of the packet as may be read.
[[nodiscard]] inline u32 readable_end(const sk_buff* skb, const packet_bounds& packet) {
  const u32 linear = skb_headlen(skb);
  return packet.end < linear ? packet.end : linear;
}

[[nodiscard]] constexpr bool may_be_tunnel(u8 protocol) {
  return protocol == wire::ip_protocol::gre || protocol == wire::ip_protocol::udp;
}

/// Looks for a tunnel in a packet that is no fragment; `*packet` becomes the packet inside, if
/// there is one.
fate enter_tunnel(const sk_buff* skb, tunnel_header* tunnel, packet_bounds* packet);

inline fate check_addresses(const wire::iphdr* ip) {
  const bool group =
      wire::ipv4_is_multicast(ip->saddr.raw()) || wire::ipv4_is_multicast(ip->daddr.raw());
  return group ? fate::group_address : fate::forward;
}

/// Reads the flow of an IPv4 frame; `fate::forward` when the fast path can serve packets like it. A
/// last fragment's record is gone afterwards, whatever becomes of the fragment. Softirq context.
inline fate read_flow(const sk_buff* skb, frame f, ipv4_flow* flow) {
  packet_bounds packet;
  if (const fate r = read_bounds(skb, f.l3, skb->len, &packet); r != fate::forward) return r;
  flow->tunnel = {tunnel_kind::none, 0, f.l3};
  flow->fragment = fragment_kind_of(packet.ip);
  if (flow->fragment != fragment_kind::none) {
    if (f.is_pppoe()) return fate::fragment;
  } else if (may_be_tunnel(packet.ip->protocol)) {
    // Copies, so that the packet's bounds stay in registers where no tunnel is looked for.
    tunnel_header tunnel = flow->tunnel;
    packet_bounds inner = packet;
    if (const fate r = enter_tunnel(skb, &tunnel, &inner); r != fate::forward) return r;
    flow->tunnel = tunnel;
    packet = inner;
  }

  const wire::iphdr* ip = packet.ip;
  const u8 protocol = ip->protocol;
  if (protocol != wire::ip_protocol::tcp && protocol != wire::ip_protocol::udp) {
    return fate::other_protocol;
  }
  if (const fate r = check_addresses(ip); r != fate::forward) return r;
  flow->key = {ip->saddr.raw(), ip->daddr.raw(), 0, 0, protocol};
  flow->l3 = flow->tunnel.inner;
  flow->l4 = packet.l4;
  return read_ports<ipv4_fragments>(
      skb, readable_end(skb, packet), [ip] { return fragment_key_of(ip); }, flow);
}

}  // namespace tarvelo
