// SPDX-License-Identifier: GPL-2.0-only
#include "stack/fragment_offer.h"

#include <cstring>

#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

/// Bytes in front of the IP header of a frame that may hold a plain IP packet; nothing for others.
std::optional<u32> link_length(const sk_buff* skb) noexcept {
  if (skb->dev->type != ARPHRD_ETHER) return 0;
  u32 length = wire::ethernet_length;
  wire::be16 type;
  if (skb_headlen(skb) < wire::tagged_ethernet_length) return std::nullopt;
  std::memcpy(&type, skb->data + offsetof(wire::ethhdr, h_proto), sizeof type);
  if (type.host() == wire::ethertype::vlan) {
    length = wire::tagged_ethernet_length;
    std::memcpy(&type, skb->data + offsetof(wire::vlan_ethhdr, h_vlan_encapsulated_proto),
                sizeof type);
  }
  const bool is_ip = type.host() == wire::ethertype::ipv4 || type.host() == wire::ethertype::ipv6;
  return is_ip ? std::optional(length) : std::nullopt;
}

std::optional<fragment_view> fragment_in(const sk_buff* skb, u32 link) noexcept {
  return read_fragment(skb->data + link, skb_headlen(skb) - link);
}

}  // namespace

std::optional<fragment_view> fragment_to_follow(const sk_buff* skb) noexcept {
  if (!core().reassembly.anything_waits()) return std::nullopt;
  const std::optional<u32> link = link_length(skb);
  return link ? fragment_in(skb, *link) : std::nullopt;
}

u32 offer_followers(vok_handle* handle, const fragment_view& taken, const net_device* dev) {
  packet_chain ready;
  {
    const stack_guard guard;
    ready = core().reassembly.gone_fast(taken, dev);
  }
  u32 count = 0;
  while (sk_buff* skb = ready.pop()) {
    if (handle->_vok_forward(handle, skb, 0) == 0) {
      ++count;
    } else {
      kfree_skb(skb);
    }
  }
  return count;
}

offered_frame note_offered(const sk_buff* skb) noexcept {
  offered_frame note{};
  const std::optional<u32> link = link_length(skb);
  if (!link || !fragment_in(skb, *link)) return note;
  note.dev = skb->dev;
  note.priority = skb->priority;
  note.link_length = *link;
  std::memcpy(note.link, skb->data, *link);
  return note;
}

}  // namespace tarvelo::stack
