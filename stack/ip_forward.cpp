// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ip_forward.h"

#include <algorithm>
#include <cstring>

#include "stack/checksum.h"
#include "stack/icmp.h"
#include "stack/ip_output.h"
#include "stack/ip_packet.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

/// The time to live shares its checksum word with the protocol.
void decrement_ttl(wire::iphdr* ip) noexcept {
  u16 before;
  u16 after;
  std::memcpy(&before, &ip->ttl, sizeof before);
  --ip->ttl;
  std::memcpy(&after, &ip->ttl, sizeof after);
  ip->check = wire::be16::from_raw(checksum_replace16(ip->check.raw(), before, after));
}

}  // namespace

receive_verdict forward_packet(sk_buff* skb) {
  net_device* out = skb_dst(skb)->dev;
  wire::iphdr* ip = ip_header(skb);
  if (ip->ttl <= 1) return reject(skb, icmp_error::ttl_exceeded());
  if ((read_once(out->flags) & IFF_UP) == 0) return reject(skb, icmp_error::host_unreachable());
  if (skb->len > out->mtu && (ip->frag_off.host() & wire::ip_frag::dont_fragment) != 0) {
    const u32 told = std::min(out->mtu, wire::ip_max_length);
    return reject(skb, icmp_error::fragmentation_needed(static_cast<u16>(told)));
  }

  decrement_ttl(ip);
  skb->dev = out;
  if (core().tracker->post_routing(skb) == track_verdict::drop) return discard(skb);
  const receive_verdict sent = output_packet(skb);
  if (sent == receive_verdict::slow) ++core().slow_forwarded;
  return sent;
}

}  // namespace tarvelo::stack
