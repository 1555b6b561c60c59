// SPDX-License-Identifier: GPL-2.0-only
//
// Small facts about an IPv6 packet in a buffer whose `data` is at its checked header, the walk over
// its extension headers (RFC 8200, 4), and the classes of addresses (RFC 4291). Pure functions.
#pragma once

#include <optional>

#include "kernel/ipv6.h"
#include "kernel/skbuff.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/ip.h"

namespace tarvelo::stack {

/// What the headers in front of the transport header say. Offsets are bytes from the IPv6 header.
struct ipv6_chain {
  u8 protocol;       ///< of what follows the chain
  u32 transport;     ///< where that is; in a later fragment, where its piece of the data is
  u32 fragment;      ///< where the fragment header is, 0 without one
  u32 next_field;    ///< where the `nexthdr` byte is that announces the fragment header
  u32 announced_at;  ///< where the one is that announces `protocol`
  bool is_later_fragment;
};

/// Walks the chain of a packet of which `bytes` are there, up to the transport header or, in a
/// later fragment, to the end of the fragment header. Nothing when it is not all there, or longer
/// than anyone in good faith makes it.
[[nodiscard]] std::optional<ipv6_chain> read_ipv6_chain(const u8* start, u32 bytes) noexcept;

[[nodiscard]] inline wire::ipv6hdr* ipv6_header(const sk_buff* skb) noexcept {
  return reinterpret_cast<wire::ipv6hdr*>(skb_network_header(skb));
}

/// Sets what a buffer says about the IPv6 packet at its `data`.
inline void mark_ipv6_packet(sk_buff* skb, u32 transport) noexcept {
  skb->network_header = static_cast<u16>(skb->data - skb->head);
  skb->transport_header = static_cast<u16>(skb->network_header + transport);
  skb->protocol = wire::htons(wire::ethertype::ipv6);
}

[[nodiscard]] inline bool is_ipv6_packet(const sk_buff* skb) noexcept {
  return skb->protocol == wire::htons(wire::ethertype::ipv6);
}

/// First or later fragment. An "atomic" one, alone in its datagram (RFC 6946), is none.
[[nodiscard]] inline bool is_ipv6_fragment(const sk_buff* skb, const ipv6_chain& chain) noexcept {
  if (chain.fragment == 0) return false;
  const auto* header = reinterpret_cast<const wire::ipv6_frag_hdr*>(skb->data + chain.fragment);
  return (header->frag_off.host() &
          (wire::ipv6_frag::more_fragments | wire::ipv6_frag::offset_mask)) != 0;
}

[[nodiscard]] inline bool is_multicast(const wire::in6_addr& address) noexcept {
  return address.bytes[0] == 0xFF;
}

[[nodiscard]] inline bool is_link_local(const wire::in6_addr& address) noexcept {
  return address.bytes[0] == 0xFE && (address.bytes[1] & 0xC0) == 0x80;
}

[[nodiscard]] inline bool is_unspecified(const wire::in6_addr& address) noexcept {
  return address == wire::in6_addr{};
}

/// The address of one host, as a source has to be; never the loopback, which is on no link.
[[nodiscard]] inline bool is_single_host(const wire::in6_addr& address) noexcept {
  const int type = __ipv6_addr_type(&address);
  return (type & (IPV6_ADDR_MULTICAST | IPV6_ADDR_LOOPBACK | IPV6_ADDR_MAPPED)) == 0 &&
         !is_unspecified(address);
}

}  // namespace tarvelo::stack
