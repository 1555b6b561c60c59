// SPDX-License-Identifier: GPL-2.0-only
//
// Small facts about an Ethernet frame in a buffer whose `data` is at its Ethernet header, at least
// wire::ethernet_length bytes of it linear. Pure functions of the frame.
#pragma once

#include <cstring>

#include "kernel/skbuff.h"
#include "kernel/wire/ethernet.h"

namespace tarvelo::stack {

[[nodiscard]] inline const wire::ethhdr* ethernet_header(const sk_buff* skb) noexcept {
  return reinterpret_cast<const wire::ethhdr*>(skb->data);
}

[[nodiscard]] inline bool same_mac(const u8* a, const u8* b) noexcept {
  return std::memcmp(a, b, wire::mac_length) == 0;
}

/// Multicast or broadcast.
[[nodiscard]] constexpr bool is_group_mac(const u8* mac) noexcept {
  return (mac[0] & wire::mac_group_bit) != 0;
}

/// True when a whole tag is in front.
[[nodiscard]] inline bool is_tagged(const sk_buff* skb) noexcept {
  return skb_headlen(skb) >= wire::tagged_ethernet_length &&
         ethernet_header(skb)->h_proto.host() == wire::ethertype::vlan;
}

/// The VLAN id of a tagged frame; 0 for a tag that gives only a priority.
[[nodiscard]] inline u16 tag_vid(const sk_buff* skb) noexcept {
  const auto* header = reinterpret_cast<const wire::vlan_ethhdr*>(skb->data);
  return static_cast<u16>(header->h_vlan_TCI.host() & wire::vlan_vid_mask);
}

}  // namespace tarvelo::stack
