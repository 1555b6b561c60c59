// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/frame.h"

#include "kernel/netdevice.h"
#include "kernel/wire/ip.h"

namespace tarvelo {
namespace {

/// What a packet without Ethernet header must have in front: the pseudo header, and what a tag or
/// a PPPoE header may need.
constexpr u32 pushed_headroom = 32;

[[nodiscard]] constexpr u8 ip_version(u8 first_byte) {
  return first_byte >> 4;
}

fate classify_pppoe(sk_buff* skb, frame* f) {
  skb->fast_flags |= fast_flag::pppoe;
  if (skb_headlen(skb) < f->l3 + wire::pppoe_length) return fate::truncated;
  const auto* pppoe = header_at<const wire::pppoe_hdr>(skb, f->l3);
  const u32 promised = pppoe->length.host() + u32{offsetof(wire::pppoe_hdr, protocol)};
  if (f->l3 + promised > skb->len) return fate::truncated;
  const u16 protocol = pppoe->protocol.host();
  u16 type = 0;
  if (protocol == wire::ppp_protocol::ipv4) {
    type = wire::ethertype::ipv4;
  } else if (protocol == wire::ppp_protocol::ipv6) {
    type = wire::ethertype::ipv6;
  } else {
    return fate::unknown_ppp_protocol;
  }
  f->in_flags |= in_flag::pppoe;
  f->l3 = static_cast<u16>(f->l3 + wire::pppoe_length);
  if (const fate result = agree_on_version(skb, type, f); result != fate::forward) return result;
  f->priority = precedence(skb->data[f->l3 + 1]);
  return fate::forward;
}

fate classify_tagged(sk_buff* skb, frame* f) {
  if (skb_headlen(skb) < wire::tagged_ethernet_length) return fate::truncated;
  const auto* header = header_at<wire::vlan_ethhdr>(skb, 0);
  const u16 type = header->h_vlan_encapsulated_proto.host();
  f->tci = header->h_vlan_TCI.host();
  f->priority = static_cast<u8>(f->tci >> wire::vlan_priority_shift);
  f->in_flags = in_flag::tagged;
  f->l3 = wire::tagged_ethernet_length;
  switch (type) {
    case wire::ethertype::ipv4:
    case wire::ethertype::ipv6:
      return classify_ip(skb, type, f);
    case wire::ethertype::pppoe_session:
      return classify_pppoe(skb, f);
    default:
      return fate::unknown_type;
  }
}

/// A packet that starts with its IP header gets the 14 bytes that the rest of the path counts on;
/// its type bytes are written into the headroom, the addresses follow with the rewrite.
fate classify_point_to_point(sk_buff* skb, frame* f) {
  if (skb->dev == nullptr || (read_once(skb->dev->flags) & IFF_POINTOPOINT) == 0)
    return fate::unknown_type;
  if (skb_headroom(skb) < pushed_headroom) return fate::no_headroom;
  const u8 version = ip_version(skb->data[0]);
  if (version != 4 && version != 6) return fate::version_mismatch;
  f->ip = version == 4 ? family::ipv4 : family::ipv6;
  const u16 type = version == 4 ? wire::ethertype::ipv4 : wire::ethertype::ipv6;
  skb_push(skb, wire::ethernet_length);
  header_at<wire::ethhdr>(skb, 0)->h_proto = wire::be16(type);
  f->pushed = true;
  return fate::forward;
}

}  // namespace

fate classify_wrapped(sk_buff* skb, u16 type, frame* f) {
  switch (type) {
    case wire::ethertype::vlan:
      return classify_tagged(skb, f);
    case wire::ethertype::pppoe_session:
      return classify_pppoe(skb, f);
    default:
      return classify_point_to_point(skb, f);
  }
}

}  // namespace tarvelo
