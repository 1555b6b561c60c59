// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipv6/admission.h"

#include "module/ipc/admission.h"
#include "module/ipv6/fragment.h"

namespace tarvelo {
namespace {

/// Reads addresses, protocol and ports, from the first fragment of a UDP datagram as well. False
/// when the packet is something else or not all of that is there to be read.
[[nodiscard]] bool read_packet(const sk_buff* skb, admitted_v6* packet) {
  const u8* const linear_end = skb->data + skb_headlen(skb);
  const u8* const header = skb_network_header(skb);
  const u8* l4 = header + wire::ipv6_length;
  if (l4 > linear_end) return false;
  packet->ip = reinterpret_cast<const wire::ipv6hdr*>(header);
  if (packet->ip->version() != 6) return false;
  packet->proto = packet->ip->nexthdr;
  if (packet->proto == wire::ip_protocol::ipv6_fragment) {
    const auto* fragment = reinterpret_cast<const wire::ipv6_frag_hdr*>(l4);
    l4 += sizeof(wire::ipv6_frag_hdr);
    if (l4 > linear_end || fragment->nexthdr != wire::ip_protocol::udp) return false;
    // A later fragment has no ports; what stands in their place is data.
    if ((fragment->frag_off.host() & wire::ipv6_frag::offset_mask) != 0) return false;
    packet->proto = wire::ip_protocol::udp;
  }
  if (packet->proto != wire::ip_protocol::tcp && packet->proto != wire::ip_protocol::udp) {
    return false;
  }
  const u8* transport = skb_transport_header(skb);
  constexpr u32 ports_length = 2 * sizeof(wire::be16);
  if (transport < l4 || transport + ports_length > linear_end) return false;
  const auto* ports = reinterpret_cast<const wire::be16*>(transport);
  packet->sport = ports[0].raw();
  packet->dport = ports[1].raw();
  return true;
}

}  // namespace

bool admit_v6(sk_buff* skb, admitted_v6* result) {
  if ((skb->fast_flags & fast_flag::add_as_reply) != 0) return false;
  if (skb->head == nullptr || skb->network_header == 0 || skb->nfct == nullptr) return false;
  nf_conn* ct = nf_ct_of(skb->nfct);
  if (ct->vok_ext == nullptr) return false;
  count_add_call(ct->vok_ext);
  if (!read_packet(skb, result)) return false;

  note_direction(skb, skb->nfctinfo);
  if (kept_off_fast_path(skb, ct)) return false;
  if (!serves_state(skb->nfctinfo)) return false;
  if (result->proto == wire::ip_protocol::tcp && tcp_is_ending(ct)) return false;
  result->ct = ct;
  result->direction = direction_of(skb->nfctinfo);
  return true;
}

}  // namespace tarvelo
