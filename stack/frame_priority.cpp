// SPDX-License-Identifier: GPL-2.0-only
#include "stack/frame_priority.h"

#include <bit>
#include <cstring>

#include "stack/ethernet_frame.h"

namespace tarvelo::stack {

namespace {

/// Of an IP header, as much as the priority needs.
constexpr u32 ip_front_length = 2;

/// What has become of the frame since it arrived.
enum class wrapping : u8 {
  as_it_came,
  out_of_session,
  in_tunnel,
  other
};

/// What `sk_buff::priority` holds.
struct priorities {
  u8 shown;
  u8 arrived;
  u8 contents;
  wrapping state;
};

[[nodiscard]] priorities priorities_of(const sk_buff* skb) noexcept {
  return std::bit_cast<priorities>(skb->priority);
}

void store(sk_buff* skb, priorities p) noexcept {
  skb->priority = std::bit_cast<u32>(p);
}

/// At the start of a packet's way.
void begin(sk_buff* skb, u8 arrived, u8 contents) noexcept {
  store(skb, {contents, arrived, contents, wrapping::as_it_came});
}

/// The IPv4 precedence: the upper three bits of the second byte.
u8 precedence(const u8* ip) noexcept {
  return static_cast<u8>(ip[1] >> 5);
}

/// The upper three bits of the IPv6 traffic class, which lies across the first two bytes.
u8 traffic_class_priority(const u8* ip) noexcept {
  return static_cast<u8>((ip[0] >> 1) & 7U);
}

bool carries_ip(const wire::pppoe_hdr* session) noexcept {
  const u16 protocol = session->protocol.host();
  return protocol == wire::ppp_protocol::ipv4 || protocol == wire::ppp_protocol::ipv6;
}

/// In a session frame the second byte counts for either version.
u8 session_priority(const sk_buff* skb, u32 offset, u8 otherwise) noexcept {
  if (skb_headlen(skb) < offset + wire::pppoe_length + ip_front_length) return otherwise;
  const auto* session = reinterpret_cast<const wire::pppoe_hdr*>(skb->data + offset);
  return carries_ip(session) ? precedence(skb->data + offset + wire::pppoe_length) : otherwise;
}

u8 content_priority(const sk_buff* skb, u8 otherwise) noexcept {
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

}  // namespace

void note_frame_priority(sk_buff* skb) noexcept {
  const u8 arrived = shown_priority(skb);
  begin(skb, arrived, content_priority(skb, arrived));
}

void keep_priority(sk_buff* skb) noexcept {
  begin(skb, shown_priority(skb), shown_priority(skb));
}

void note_unwrapped(sk_buff* skb, ppp_channel_type from) noexcept {
  priorities p = priorities_of(skb);
  const bool untouched = p.state == wrapping::as_it_came;
  p.shown = p.arrived;
  p.state =
      untouched && from == ppp_channel_type::pppoe ? wrapping::out_of_session : wrapping::other;
  store(skb, p);
}

void note_wrapped(sk_buff* skb, ppp_channel_type into) noexcept {
  priorities p = priorities_of(skb);
  const bool into_session = into == ppp_channel_type::pppoe;
  const bool stays =
      into_session && (p.state == wrapping::out_of_session || p.state == wrapping::in_tunnel);
  p.shown = stays ? p.contents : p.arrived;
  p.state = into_session ? wrapping::other : wrapping::in_tunnel;
  store(skb, p);
}

u8 shown_priority(const sk_buff* skb) noexcept {
  return priorities_of(skb).shown;
}

}  // namespace tarvelo::stack
