// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ipv6_output.h"

#include "kernel/route6.h"
#include "stack/ip_output.h"
#include "stack/ipv6_packet.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

constexpr u32 version_word = 0x60000000;
constexpr u8 default_hop_limit = 64;

/// A link with two ends has no addresses to ask for.
ip_address next_hop_on(const net_device* dev, const wire::in6_addr& to) noexcept {
  return (read_once(dev->flags) & IFF_POINTOPOINT) != 0 ? wire::in6_addr{} : to;
}

}  // namespace

void write_ipv6_header(wire::ipv6hdr* ip, const wire::in6_addr& saddr, const wire::in6_addr& daddr,
                       u8 protocol, u32 payload) noexcept {
  ip->version_class_flow = wire::be32(version_word);
  ip->payload_len = wire::be16(static_cast<u16>(payload));
  ip->nexthdr = protocol;
  ip->hop_limit = default_hop_limit;
  ip->saddr = saddr;
  ip->daddr = daddr;
}

ip_address ipv6_next_hop(const sk_buff* skb) noexcept {
  const auto* route = reinterpret_cast<const rt6_info*>(skb_dst(skb));
  return *rt6_nexthop(route, &ipv6_header(skb)->daddr);
}

receive_verdict send_own_ipv6_packet(sk_buff* skb, net_device* link) {
  const wire::ipv6hdr& ip = *ipv6_header(skb);
  if (is_link_local(ip.daddr)) {
    skb->dev = link;
    return output_to_next_hop(skb, next_hop_on(link, ip.daddr));
  }
  const flowi6 flow{ip.saddr, ip.daddr, ip.nexthdr};
  rt6_info* route = ip6_route_output(&flow);
  if (route == nullptr) return discard(skb);
  if (route->rt_type != RTN_UNICAST) {
    dst_release(&route->dst);
    return discard(skb);
  }
  skb_dst_set(skb, &route->dst);
  skb->dev = route->dst.dev;
  return output_to_next_hop(skb, ipv6_next_hop(skb));
}

}  // namespace tarvelo::stack
