// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ethernet_frame.h"

namespace tarvelo::stack {

namespace {

/// Of an IP header, as much as the priority needs.
constexpr u32 ip_front_length = 2;

/// The IPv4 precedence: the upper three bits of the second byte.
u32 precedence(const u8* ip) noexcept {
  return ip[1] >> 5;
}

/// The upper three bits of the IPv6 traffic class, which lies across the first two bytes.
u32 traffic_class_priority(const u8* ip) noexcept {
  return (ip[0] >> 1) & 7U;
}

bool carries_ip(const wire::pppoe_hdr* session) noexcept {
  const u16 protocol = session->protocol.host();
  return protocol == wire::ppp_protocol::ipv4 || protocol == wire::ppp_protocol::ipv6;
}

/// In a session frame the second byte counts for either version.
u32 session_priority(const sk_buff* skb, u32 offset, u32 otherwise) noexcept {
  if (skb_headlen(skb) < offset + wire::pppoe_length + ip_front_length) return otherwise;
  const auto* session = reinterpret_cast<const wire::pppoe_hdr*>(skb->data + offset);
  return carries_ip(session) ? precedence(skb->data + offset + wire::pppoe_length) : otherwise;
}

}  // namespace

u32 content_priority(const sk_buff* skb, u32 otherwise) noexcept {
  const bool tagged = is_tagged(skb);
  const u32 offset = tagged ? wire::tagged_ethernet_length : wire::ethernet_length;
  wire::be16 type;
  std::memcpy(&type, skb->data + offset - sizeof type, sizeof type);
  if (type.host() == wire::ethertype::pppoe_session) {
    return session_priority(skb, offset, otherwise);
  }
  if (tagged || skb_headlen(skb) < offset + ip_front_length) return otherwise;
  if (type.host() == wire::ethertype::ipv4) return precedence(skb->data + offset);
  if (type.host() == wire::ethertype::ipv6) return traffic_class_priority(skb->data + offset);
  return otherwise;
}

}  // namespace tarvelo::stack
