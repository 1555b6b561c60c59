// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ipv6_forward.h"

#include <algorithm>

#include "kernel/route6.h"
#include "stack/icmpv6.h"
#include "stack/ip_output.h"
#include "stack/ipv6_output.h"
#include "stack/ipv6_packet.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

/// The longest of the packets that are going to be sent.
u32 longest(const sk_buff* skb, const packet_chain& originals) noexcept {
  if (originals.first() == nullptr) return skb->len;
  u32 length = 0;
  for (const sk_buff* at = originals.first(); at != nullptr; at = at->next)
    length = std::max(length, at->len);
  return length;
}

/// An error about what its sender has sent, which is not the datagram that the router has made.
receive_verdict refuse(sk_buff* skb, const packet_chain& originals, icmpv6_error what) {
  const sk_buff* about = originals.first() != nullptr ? originals.first() : skb;
  const receive_verdict verdict = send_icmpv6_error(about, what);
  kfree_skb(skb);
  return verdict;
}

receive_verdict send_originals(const ip_address& next_hop, net_device* out,
                               packet_chain originals) {
  receive_verdict verdict = receive_verdict::slow;
  while (sk_buff* fragment = originals.pop()) {
    wire::ipv6hdr* ip = ipv6_header(fragment);
    const bool may_go = ip->hop_limit > 1;
    if (may_go) --ip->hop_limit;
    fragment->dev = out;
    // Every fragment is tried: the next hop may have room again for the later ones.
    const receive_verdict one = may_go ? output_to_next_hop(fragment, next_hop) : discard(fragment);
    if (one == receive_verdict::dropped) verdict = receive_verdict::dropped;
  }
  return verdict;
}

}  // namespace

receive_verdict forward_ipv6_packet(sk_buff* skb, packet_chain originals) {
  net_device* out = skb_dst(skb)->dev;
  wire::ipv6hdr* ip = ipv6_header(skb);
  if (ip->hop_limit <= 1) return refuse(skb, originals, icmpv6_error::hop_limit_exceeded());
  if ((read_once(out->flags) & IFF_UP) == 0) {
    return refuse(skb, originals, icmpv6_error::address_unreachable());
  }
  if (longest(skb, originals) > out->mtu) {
    return refuse(skb, originals, icmpv6_error::packet_too_big(out->mtu));
  }

  --ip->hop_limit;
  skb->dev = out;
  if (core().tracker->post_routing(skb) == track_verdict::drop) return discard(skb);
  const ip_address next_hop = ipv6_next_hop(skb);
  receive_verdict sent;
  if (originals.first() == nullptr) {
    sent = output_to_next_hop(skb, next_hop);
  } else {
    kfree_skb(skb);
    sent = send_originals(next_hop, out, std::move(originals));
  }
  if (sent == receive_verdict::slow) ++core().slow_forwarded;
  return sent;
}

}  // namespace tarvelo::stack
