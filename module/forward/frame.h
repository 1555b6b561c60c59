// SPDX-License-Identifier: GPL-2.0-only
//
// The link-layer side of a received frame, parsed once: where the IP header is, the tag, the
// priority, the encapsulation. Positions are offsets from the start of the data, never pointers, so
// they hold when the data has moved under a hook.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/ethernet.h"
#include "module/forward/fate.h"

namespace tarvelo {

/// Protocol families, as the hooks count them.
enum class family : u8 {
  ipv4 = 2,
  ipv6 = 10,
};

/// Bits of `frame::in_flags`: what the frame was wrapped in, and how it leaves.
namespace in_flag {
inline constexpr u8 pppoe = 0x01;
inline constexpr u8 tagged = 0x08;
inline constexpr u8 vlan_output = 0x10;
}  // namespace in_flag

/// Handed on by value along the packet path and by reference to a copy where a step aside begins:
/// what nobody else can change stays in registers.
struct frame {
  u16 l3;       ///< offset of the IP header
  u16 tci;      ///< tag control word, host order; 0 when untagged
  u8 priority;  ///< 0 to 7, from the tag or else from the IP header
  u8 in_flags;  ///< `in_flag`
  family ip;    ///< by frame type and IP version, which agree
  bool pushed;  ///< a pseudo Ethernet header was pushed (point-to-point input)

  [[nodiscard]] bool is_tagged() const { return (in_flags & in_flag::tagged) != 0; }
  [[nodiscard]] bool is_bare() const { return in_flags == 0 && !pushed; }
  [[nodiscard]] bool is_pppoe() const { return (in_flags & in_flag::pppoe) != 0; }
  [[nodiscard]] u16 vid() const { return tci & wire::vlan_vid_mask; }
  /// Bytes of Ethernet header and tag.
  [[nodiscard]] u32 link_length() const {
    return is_tagged() ? wire::tagged_ethernet_length : wire::ethernet_length;
  }
};

/// A header at an offset from the data; the caller has checked that it is there.
template <typename Header>
[[nodiscard]] inline Header* header_at(const sk_buff* skb, u32 offset) {
  static_assert(alignof(Header) == 1);
  return reinterpret_cast<Header*>(skb->data + offset);
}

/// Of the IP header, as much as the priority needs.
inline constexpr u32 ip_front_length = 2;

/// Sets the family that the IP version says, if it is the one that the type says.
inline fate agree_on_version(const sk_buff* skb, u16 type, frame* f) {
  if (skb_headlen(skb) < f->l3 + ip_front_length) return fate::truncated;
  const u32 version = skb->data[f->l3] >> 4;
  if (type == wire::ethertype::ipv4 && version == 4) {
    f->ip = family::ipv4;
  } else if (type == wire::ethertype::ipv6 && version == 6) {
    f->ip = family::ipv6;
  } else {
    return fate::version_mismatch;
  }
  return fate::forward;
}

/// The IPv4 precedence: the upper three bits of the second byte.
[[nodiscard]] constexpr u8 precedence(u8 second_byte) {
  return second_byte >> 5;
}

/// The upper three bits of the IPv6 traffic class, which lies across the first two bytes.
[[nodiscard]] constexpr u8 traffic_class_priority(u8 first_byte) {
  return (first_byte >> 1) & 7;
}

/// An IP packet right behind the Ethernet header and its tag, which has the priority if it is
/// there.
[[gnu::always_inline]] inline fate classify_ip(const sk_buff* skb, u16 type, frame* f) {
  if (const fate result = agree_on_version(skb, type, f); result != fate::forward) return result;
  if (f->is_tagged()) return fate::forward;
  const u8* ip = skb->data + f->l3;
  f->priority = f->ip == family::ipv4 ? precedence(ip[1]) : traffic_class_priority(ip[0]);
  return fate::forward;
}

/// The rest of classify(): something is between the Ethernet header and the packet, or there is no
/// Ethernet header.
fate classify_wrapped(sk_buff* skb, u16 type, frame* f);

/// Parses the frame at the start of the data. In a packet of a point-to-point device, which has no
/// Ethernet header, pushes a pseudo one and says so in `pushed`; the caller takes it off again when
/// the packet is handed back. Marks PPPoE frames in `fast_flags`.
inline fate classify(sk_buff* skb, frame* f) {
  *f = {wire::ethernet_length, 0, 0, 0, family::ipv4, false};
  if (skb_headlen(skb) < wire::ethernet_length) return fate::truncated;
  const u16 type = header_at<wire::ethhdr>(skb, 0)->h_proto.host();
  switch (type) {
    case wire::ethertype::ipv4:
      return classify_ip(skb, wire::ethertype::ipv4, f);
    case wire::ethertype::ipv6:
      return classify_ip(skb, wire::ethertype::ipv6, f);
    default:
      // A copy, so that the frame of any other type can stay in a register.
      frame wrapped = *f;
      const fate result = classify_wrapped(skb, type, &wrapped);
      *f = wrapped;
      return result;
  }
}

}  // namespace tarvelo
