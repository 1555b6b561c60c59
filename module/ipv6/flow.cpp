// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipv6/flow.h"

#include "kernel/ipv6.h"

namespace tarvelo {
namespace {

/// The fragment header comes right behind the fixed header.
[[nodiscard]] const wire::ipv6_frag_hdr* fragment_header(const sk_buff* skb, u32 l3) {
  return header_at<const wire::ipv6_frag_hdr>(skb, l3 + wire::ipv6_length);
}

/// Version and payload length, against the frame. Padding may follow. `*end` is the offset of the
/// first byte that may not be read.
fate read_bounds(const sk_buff* skb, u32 l3, u32* end) {
  const u32 linear = skb_headlen(skb);
  if (l3 + wire::ipv6_length > linear) return fate::truncated;
  const auto* ip = header_at<const wire::ipv6hdr>(skb, l3);
  if (ip->version() != 6) return fate::version_mismatch;
  const u32 packet_end = l3 + wire::ipv6_length + ip->payload_len.host();
  if (packet_end > skb->len) return fate::truncated;
  *end = packet_end < linear ? packet_end : linear;
  return fate::forward;
}

/// Fragments of anything but UDP are not served, nor is one that is a whole datagram: it has
/// nothing to do with others of its identification.
fate read_fragment(const sk_buff* skb, u32 end, ipv6_flow* flow) {
  if (flow->l4 + u32{sizeof(wire::ipv6_frag_hdr)} > end) return fate::truncated;
  const wire::ipv6_frag_hdr* header = fragment_header(skb, flow->l3);
  if (header->nexthdr != wire::ip_protocol::udp) return fate::other_protocol;
  flow->fragment = fragment_kind_of(header);
  if (flow->fragment == fragment_kind::none) return fate::fragment;
  flow->l4 += u32{sizeof(wire::ipv6_frag_hdr)};
  flow->key.proto = wire::ip_protocol::udp;
  return fate::forward;
}

}  // namespace

fate check_addresses(const wire::ipv6hdr* ip) {
  if ((__ipv6_addr_type(&ip->saddr) & IPV6_ADDR_LINKLOCAL) != 0) return fate::link_local;
  const int destination = __ipv6_addr_type(&ip->daddr);
  if ((destination & IPV6_ADDR_MULTICAST) != 0) return fate::group_address;
  return (destination & IPV6_ADDR_LINKLOCAL) == 0 ? fate::forward : fate::link_local;
}

fate read_flow(const sk_buff* skb, frame f, ipv6_flow* flow) {
  u32 end = 0;
  if (const fate r = read_bounds(skb, f.l3, &end); r != fate::forward) return r;
  const auto* ip = header_at<const wire::ipv6hdr>(skb, f.l3);
  flow->key = {ip->saddr, ip->daddr, 0, 0, ip->nexthdr};
  flow->l3 = f.l3;
  flow->l4 = f.l3 + wire::ipv6_length;
  flow->tunnel = {tunnel_kind::none, 0, f.l3};
  flow->fragment = fragment_kind::none;
  switch (ip->nexthdr) {
    case wire::ip_protocol::tcp:
    case wire::ip_protocol::udp:
      break;
    case wire::ip_protocol::ipv6_fragment:
      if (const fate r = read_fragment(skb, end, flow); r != fate::forward) return r;
      break;
    default:
      return fate::other_protocol;
  }
  return read_ports<ipv6_fragments>(
      skb, end, [skb, flow] { return fragment_id_of(skb, *flow); }, flow);
}

frag_key_v6 fragment_id_of(const sk_buff* skb, const ipv6_flow& flow) {
  return fragment_key_of(header_at<const wire::ipv6hdr>(skb, flow.l3),
                         fragment_header(skb, flow.l3));
}

}  // namespace tarvelo
