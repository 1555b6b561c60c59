// SPDX-License-Identifier: GPL-2.0-only
//
// Small facts about an IPv4 packet in a buffer whose `data` is at its checked IP header, and the
// classes of addresses (RFC 1122, 3.2.1.3; RFC 1812, 5.3.7). Addresses are in network byte order.
// Pure functions of the packet.
#pragma once

#include "kernel/route.h"
#include "kernel/skbuff.h"
#include "kernel/slab.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/ip.h"

namespace tarvelo::stack {

/// Bytes in front of the IP header of a buffer that the stack makes: any link-layer header and
/// encapsulation fits.
inline constexpr u32 packet_headroom = 128;
/// Fragment offsets count in these, bytes.
inline constexpr u32 fragment_unit = 8;

/// An empty buffer with room for a packet of `length` bytes that the stack makes; null without
/// memory.
[[nodiscard]] inline sk_buff* alloc_packet(u32 length) noexcept {
  sk_buff* skb = alloc_skb(packet_headroom + length, GFP_ATOMIC);
  if (skb != nullptr) skb_reserve(skb, packet_headroom);
  return skb;
}

[[nodiscard]] inline wire::iphdr* ip_header(const sk_buff* skb) noexcept {
  return reinterpret_cast<wire::iphdr*>(skb_network_header(skb));
}

/// Sets what a buffer says about the IPv4 packet at its `data`.
inline void mark_ip_packet(sk_buff* skb) noexcept {
  skb->network_header = static_cast<u16>(skb->data - skb->head);
  skb->transport_header = static_cast<u16>(skb->network_header + ip_header(skb)->header_length());
  skb->protocol = wire::htons(wire::ethertype::ipv4);
}

/// First or later fragment.
[[nodiscard]] inline bool is_fragment(const wire::iphdr* ip) noexcept {
  return (ip->frag_off.host() & (wire::ip_frag::more_fragments | wire::ip_frag::offset_mask)) != 0;
}

[[nodiscard]] inline bool is_later_fragment(const wire::iphdr* ip) noexcept {
  return (ip->frag_off.host() & wire::ip_frag::offset_mask) != 0;
}

[[nodiscard]] constexpr u8 first_octet(u32 address) noexcept {
  return static_cast<u8>(address & 0xFF);
}

/// 0.0.0.0/8, 127.0.0.0/8 or 240.0.0.0/4: never on a link.
[[nodiscard]] constexpr bool is_unroutable(u32 address) noexcept {
  const u8 octet = first_octet(address);
  return octet == 0 || octet == 127 || octet >= 240;
}

/// The address of one host, as a source has to be.
[[nodiscard]] constexpr bool is_single_host(u32 address) noexcept {
  return !is_unroutable(address) && !wire::ipv4_is_multicast(address);
}

}  // namespace tarvelo::stack
