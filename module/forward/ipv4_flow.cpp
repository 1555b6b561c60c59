// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/ipv4_flow.h"

#include "module/forward/ipv4_fragment.h"

namespace tarvelo {
namespace {

/// An IPv4 packet in the data: its header, where what follows it begins, and where the packet ends,
/// by its own length. All of it is linear, but for `end`, behind the header.
struct packet_bounds {
  const wire::iphdr* ip;
  u32 l4;
  u32 end;
};

/// Version, header length and total length, against each other and against the `limit` of the
/// packet or frame around it. Padding may follow.
fate read_bounds(const sk_buff* skb, u32 l3, u32 limit, packet_bounds* packet) {
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
[[nodiscard]] u32 readable_end(const sk_buff* skb, const packet_bounds& packet) {
  const u32 linear = skb_headlen(skb);
  return packet.end < linear ? packet.end : linear;
}

/// Looks into a tunnel. Outer fragments have been told apart before: there is none here.
fate find_tunnel(const sk_buff* skb, const packet_bounds& outer, tunnel_header* tunnel) {
  const u32 end = readable_end(skb, outer);
  if (outer.ip->protocol == wire::ip_protocol::gre) return find_pptp(skb, outer.l4, end, tunnel);
  if (outer.ip->protocol == wire::ip_protocol::udp) {
    (void)find_l2tp(skb, outer.l4 + u32{sizeof(wire::udphdr)}, end, tunnel);
  }
  return fate::forward;
}

/// Goes on with the packet inside, which may be no fragment.
fate enter_tunnel(const sk_buff* skb, u32 inner, packet_bounds* packet) {
  const u32 outer_end = packet->end;
  if (const fate r = read_bounds(skb, inner, outer_end, packet); r != fate::forward) return r;
  return fragment_kind_of(packet->ip) == fragment_kind::none ? fate::forward : fate::fragment;
}

fate check_addresses(const wire::iphdr* ip) {
  const bool group =
      wire::ipv4_is_multicast(ip->saddr.raw()) || wire::ipv4_is_multicast(ip->daddr.raw());
  return group ? fate::group_address : fate::forward;
}

[[nodiscard]] constexpr bool is_served(u8 protocol) {
  return protocol == wire::ip_protocol::tcp || protocol == wire::ip_protocol::udp;
}

}  // namespace

fate read_flow(const sk_buff* skb, const frame& f, ipv4_flow* flow) {
  packet_bounds packet;
  if (const fate r = read_bounds(skb, f.l3, skb->len, &packet); r != fate::forward) return r;
  flow->tunnel = {tunnel_kind::none, 0, f.l3};
  flow->fragment = fragment_kind_of(packet.ip);
  if (flow->fragment == fragment_kind::none) {
    if (const fate r = find_tunnel(skb, packet, &flow->tunnel); r != fate::forward) return r;
  } else if (f.is_pppoe()) {
    return fate::fragment;
  }
  if (flow->tunnel.kind != tunnel_kind::none) {
    if (const fate r = enter_tunnel(skb, flow->tunnel.inner, &packet); r != fate::forward) return r;
  }

  const wire::iphdr* ip = packet.ip;
  if (!is_served(ip->protocol)) return fate::other_protocol;
  if (const fate r = check_addresses(ip); r != fate::forward) return r;
  flow->key = {ip->saddr.raw(), ip->daddr.raw(), 0, 0, ip->protocol};
  flow->l3 = flow->tunnel.inner;
  flow->l4 = packet.l4;
  return read_ports<ipv4_fragments>(
      skb, readable_end(skb, packet), [ip] { return fragment_key_of(ip); }, flow);
}

}  // namespace tarvelo
