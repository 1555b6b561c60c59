// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ip_input.h"

#include <utility>

#include "stack/checksum.h"
#include "stack/icmp.h"
#include "stack/ip_packet.h"
#include "stack/stack_core.h"
#include "stack/tunnel_packet.h"

namespace tarvelo::stack {

namespace {

/// The header's own claims against what is there (RFC 1812, 5.2.2). Cuts the buffer to the packet.
bool lengths_are_sound(sk_buff* skb) noexcept {
  if (skb_headlen(skb) < wire::ipv4_min_length) return false;
  const auto* ip = reinterpret_cast<const wire::iphdr*>(skb->data);
  if (ip->version() != 4) return false;
  const u32 header_length = ip->header_length();
  if (header_length < wire::ipv4_min_length || header_length > skb_headlen(skb)) return false;
  const u32 length = ip->tot_len.host();
  if (length < header_length || length > skb->len) return false;
  skb_trim(skb, length);
  return true;
}

/// Addresses that no packet on a link may carry, and those that are meant for whole links: the
/// router neither forwards such packets nor offers a service by them.
bool addresses_are_sound(const wire::iphdr* ip) noexcept {
  const u32 source = ip->saddr.raw();
  if (!is_single_host(source) || core().devices.is_own(source)) return false;
  return is_single_host(ip->daddr.raw());
}

/// Routes a tracked packet and runs its route's input function.
receive_verdict route_packet(sk_buff* skb) {
  const wire::iphdr* ip = ip_header(skb);
  if (skb_dst(skb) == nullptr &&
      ip_route_input_noref(skb, ip->daddr.raw(), ip->saddr.raw(), ip->tos, skb->dev) != 0) {
    return reject(skb, icmp_error::net_unreachable());
  }
  dst_entry* dst = skb_dst(skb);
  switch (reinterpret_cast<const rtable*>(dst)->rt_type) {
    case RTN_UNICAST:
    case RTN_LOCAL:
      return dst->input(skb) == 0 ? receive_verdict::slow : receive_verdict::dropped;
    case RTN_UNREACHABLE:
      return reject(skb, icmp_error::host_unreachable());
    default:
      return discard(skb);  // directed broadcasts stop here (RFC 2644)
  }
}

}  // namespace

receive_verdict input_ip_packet(sk_buff* skb) {
  if (!lengths_are_sound(skb)) return discard(skb);
  mark_ip_packet(skb);
  if (const wire::iphdr* ip = ip_header(skb); !checksum_holds(ip, ip->header_length())) {
    if (!is_fragment(ip)) core().tracker->lost_before_tracking(skb);
    return discard(skb);
  }
  if (!addresses_are_sound(ip_header(skb))) return discard(skb);

  if (is_fragment(ip_header(skb))) {
    const reassembly_table::result put_together =
        core().reassembly.add(skb, std::exchange(core().as_offered, {}));
    if (put_together.datagram == nullptr) return put_together.verdict;
    skb = put_together.datagram;
  }
  const bool is_tracked = session_of_packet(skb) == nullptr;
  if (is_tracked && core().tracker->pre_routing(skb) == track_verdict::drop) return discard(skb);
  return route_packet(skb);
}

receive_verdict deliver_locally(sk_buff* skb) {
  if (core().tracker->local_in(skb) == track_verdict::drop) return discard(skb);
  if (const ppp_session* session = session_of_packet(skb); session != nullptr) {
    return input_tunnel_packet(skb, *session);
  }
  if (is_between_tunnel_ends(skb)) return discard(skb);  // someone listens there: no error
  switch (ip_header(skb)->protocol) {
    case wire::ip_protocol::icmp:
      return deliver_icmp(skb);
    case wire::ip_protocol::tcp:
    case wire::ip_protocol::udp:
      return reject(skb, icmp_error::port_unreachable());
    default:
      return reject(skb, icmp_error::protocol_unreachable());
  }
}

}  // namespace tarvelo::stack
