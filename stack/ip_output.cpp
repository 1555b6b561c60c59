// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ip_output.h"

#include "stack/ip_fragment.h"
#include "stack/ip_packet.h"
#include "stack/neighbour_cache.h"
#include "stack/ppp.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

/// A device without a link-layer header sends the packet as it is.
receive_verdict output_raw(sk_buff* skb) {
  // The device may keep the buffer in a batch: what it no longer needs goes now.
  nf_reset(skb);
  skb_dst_drop(skb);
  skb->mac_header = skb->network_header;
  return dev_queue_xmit(skb) == NETDEV_TX_OK ? receive_verdict::slow : receive_verdict::dropped;
}

u32 next_hop_of(const sk_buff* skb) noexcept {
  const u32 gateway = rt_next_hop(reinterpret_cast<const rtable*>(skb_dst(skb)));
  return gateway != 0 ? gateway : ip_header(skb)->daddr.raw();
}

}  // namespace

receive_verdict output_to_next_hop(sk_buff* skb, const ip_address& next_hop) {
  const device_record* record = core().devices.find(skb->dev);
  if (record == nullptr) return discard(skb);
  switch (record->kind) {
    case device_kind::port:
    case device_kind::vlan:
    case device_kind::bridge:
      return neighbour_output(skb, next_hop);
    case device_kind::rawip:
      return output_raw(skb);
    case device_kind::ppp:
      return output_ppp(skb);
  }
  return discard(skb);
}

receive_verdict output_packet(sk_buff* skb) {
  const u32 next_hop = next_hop_of(skb);
  if (skb->len <= skb->dev->mtu) return output_to_next_hop(skb, next_hop);

  sk_buff* fragments = fragment_packet(skb, skb->dev->mtu);
  receive_verdict verdict = fragments != nullptr ? receive_verdict::slow : receive_verdict::dropped;
  while (fragments != nullptr) {
    sk_buff* fragment = fragments;
    fragments = fragment->next;
    fragment->next = nullptr;
    // Every fragment is tried: the next hop may have room again for the later ones.
    const receive_verdict one = output_to_next_hop(fragment, next_hop);
    if (one == receive_verdict::dropped) verdict = receive_verdict::dropped;
  }
  return verdict;
}

receive_verdict send_own_packet(sk_buff* skb) {
  const wire::iphdr* ip = ip_header(skb);
  const flowi4 flow{ip->saddr.raw(), ip->daddr.raw(), ip->protocol};
  rtable* route = ip_route_output_flow(&flow);
  if (route == nullptr) return discard(skb);
  if (route->rt_type != RTN_UNICAST) {
    dst_release(&route->dst);
    return discard(skb);
  }
  skb_dst_set(skb, &route->dst);
  skb->dev = route->dst.dev;
  return output_packet(skb);
}

}  // namespace tarvelo::stack
