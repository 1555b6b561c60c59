// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/ipv4_flow.h"

#include "kernel/wire/transport.h"
#include "module/forward/tunnel.h"

namespace tarvelo {
namespace {

constexpr u16 any_fragment = wire::ip_frag::more_fragments | wire::ip_frag::offset_mask;

/// The protocols that may have to do with a cached connection.
fate check_protocol(u8 protocol) {
  switch (protocol) {
    case wire::ip_protocol::tcp:
    case wire::ip_protocol::udp:
      return fate::forward;
    case wire::ip_protocol::gre:
      return fate::tunnelled;
    default:
      return fate::other_protocol;
  }
}

/// Version, header length and total length, against each other and against the frame. `rest` is
/// what the frame holds from the IP header on: padding may follow the packet.
fate check_header(const wire::iphdr* ip, u32 rest) {
  if (ip->version() != 4) return fate::version_mismatch;
  const u32 header_length = ip->header_length();
  const u32 total_length = ip->tot_len.host();
  if (header_length < wire::ipv4_min_length || total_length < header_length) {
    return fate::bad_header;
  }
  return total_length <= rest ? fate::forward : fate::truncated;
}

fate read_tcp(const sk_buff* skb, ipv4_flow* flow) {
  const auto* tcp = header_at<wire::tcphdr>(skb, flow->l4);
  if ((tcp->flags & wire::tcp_flag::syn) != 0) return fate::tcp_syn;
  flow->key.sport = tcp->source.raw();
  flow->key.dport = tcp->dest.raw();
  flow->tcp_flags = tcp->flags;
  return fate::forward;
}

fate read_udp(const sk_buff* skb, ipv4_flow* flow) {
  if (carries_l2tp(skb, flow->end)) return fate::tunnelled;
  const auto* udp = header_at<wire::udphdr>(skb, flow->l4);
  flow->key.sport = udp->source.raw();
  flow->key.dport = udp->dest.raw();
  flow->tcp_flags = 0;
  return fate::forward;
}

}  // namespace

fate read_flow(const sk_buff* skb, const frame& f, ipv4_flow* flow) {
  const u32 linear = skb_headlen(skb);
  if (linear < f.l3 + wire::ipv4_min_length) return fate::truncated;
  const auto* ip = header_at<wire::iphdr>(skb, f.l3);
  if (const fate r = check_header(ip, skb->len - f.l3); r != fate::forward) return r;
  if (const fate r = check_protocol(ip->protocol); r != fate::forward) return r;
  if ((ip->frag_off.host() & any_fragment) != 0) return fate::fragment;
  const u32 saddr = ip->saddr.raw();
  const u32 daddr = ip->daddr.raw();
  if (wire::ipv4_is_multicast(saddr) || wire::ipv4_is_multicast(daddr)) return fate::group_address;

  const bool is_tcp = ip->protocol == wire::ip_protocol::tcp;
  const u32 l4_length = is_tcp ? sizeof(wire::tcphdr) : sizeof(wire::udphdr);
  flow->key.sip = saddr;
  flow->key.dip = daddr;
  flow->key.proto = ip->protocol;
  flow->l4 = f.l3 + ip->header_length();
  flow->end = flow->l4 + l4_length;
  if (flow->end > linear || flow->end > f.l3 + u32{ip->tot_len.host()}) return fate::truncated;
  return is_tcp ? read_tcp(skb, flow) : read_udp(skb, flow);
}

}  // namespace tarvelo
