// SPDX-License-Identifier: GPL-2.0-only
//
// The packet that nearly all packets are like: a whole TCP packet without IP options, right behind
// an Ethernet header. All offsets are known then, and what classify() and read_flow() would look at
// comes down to a few comparisons; the compiler makes a version of the path in which all of it is
// constant.
#pragma once

#include "module/forward/ipv4_flow.h"

namespace tarvelo::plain_ipv4 {

inline constexpr u32 l3 = wire::ethernet_length;
inline constexpr u32 l4 = l3 + wire::ipv4_min_length;
inline constexpr u32 end = l4 + u32{sizeof(wire::tcphdr)};
inline constexpr u8 version_and_length = 0x45;

/// What the reading of such a packet would have found out otherwise.
[[nodiscard]] inline frame frame_of(const sk_buff* skb) {
  const u8 tos = header_at<const wire::iphdr>(skb, l3)->tos;
  return {l3, 0, precedence(tos), 0, family::ipv4, false};
}

[[nodiscard]] inline ipv4_flow flow_of(const sk_buff* skb) {
  const auto* ip = header_at<const wire::iphdr>(skb, l3);
  const auto* tcp = header_at<const wire::tcphdr>(skb, l4);
  return {{ip->saddr.raw(), ip->daddr.raw(), tcp->source.raw(), tcp->dest.raw(),
           wire::ip_protocol::tcp},
          l3,
          l4,
          end,
          0,
          fragment_kind::none,
          false,
          {tunnel_kind::none, 0, l3}};
}

/// True for such a packet when nothing about it speaks against forwarding: no group address, and no
/// start or end of a connection. All others are looked at step by step.
[[nodiscard]] inline bool is_plain(const sk_buff* skb) {
  constexpr u16 any_fragment =
      wire::htons(wire::ip_frag::more_fragments | wire::ip_frag::offset_mask);
  constexpr u8 start_or_end = wire::tcp_flag::syn | wire::tcp_flag::fin | wire::tcp_flag::rst;
  constexpr u32 headers = end - l3;

  if (skb_headlen(skb) < end) return false;
  const auto* link = header_at<const wire::ethhdr>(skb, 0);
  const auto* ip = header_at<const wire::iphdr>(skb, l3);
  if (link->h_proto.raw() != wire::htons(wire::ethertype::ipv4)) return false;
  if (ip->version_ihl != version_and_length || ip->protocol != wire::ip_protocol::tcp) return false;
  if ((ip->frag_off.raw() & any_fragment) != 0) return false;
  if ((header_at<const wire::tcphdr>(skb, l4)->flags & start_or_end) != 0) return false;
  if ((link->h_dest[0] & wire::mac_group_bit) != 0) return false;
  // Not shorter than the headers and not longer than the frame.
  if (ip->tot_len.host() - headers > skb->len - end) return false;
  return !wire::ipv4_is_multicast(ip->saddr.raw()) && !wire::ipv4_is_multicast(ip->daddr.raw());
}

}  // namespace tarvelo::plain_ipv4
