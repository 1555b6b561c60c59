// SPDX-License-Identifier: GPL-2.0-only
#include "stack/vlan.h"

#include <cstring>

#include "kernel/errno.h"
#include "kernel/if_vlan.h"
#include "stack/ethernet_frame.h"
#include "stack/frame_priority.h"

namespace tarvelo::stack {

namespace {

constexpr u32 addresses_length = 2 * wire::mac_length;

/// The addresses move with the start of the frame; the type stays in front of what it announces.
void insert_vlan_tag(sk_buff* skb, u16 tci) noexcept {
  const u8* old = skb->data;
  skb_push(skb, wire::vlan_tag_length);
  std::memmove(skb->data, old, addresses_length);
  auto* header = reinterpret_cast<wire::vlan_ethhdr*>(skb->data);
  header->h_vlan_proto = wire::be16(wire::ethertype::vlan);
  header->h_vlan_TCI = wire::be16(tci);
}

int transmit_tagged(sk_buff* skb, net_device* dev) {
  if (skb_headlen(skb) < wire::ethernet_length) return -EINVAL;
  if (skb_headroom(skb) < wire::vlan_tag_length) return -ENOBUFS;
  const u32 tci = vlan_dev_vlan_id(dev) | u32{shown_priority(skb)} << wire::vlan_priority_shift;
  insert_vlan_tag(skb, static_cast<u16>(tci));
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  skb->dev = vlan_dev_real_dev(dev);
  return dev_hard_start_xmit(skb);
}

constexpr net_device_ops vlan_ops{.ndo_start_xmit = &transmit_tagged};

}  // namespace

net_device* make_vlan_device(const std::string& name, const vlan_link& link, net_device* real_dev) {
  const u16 flags = link.reorder_header ? VLAN_FLAG_REORDER_HDR : u16{0};
  net_device* dev = vlan_dev_alloc(name.c_str(), real_dev, link.id, flags);
  if (dev == nullptr) return nullptr;
  dev->flags |= IFF_BROADCAST;
  dev->netdev_ops = &vlan_ops;
  return dev;
}

void remove_vlan_tag(sk_buff* skb) noexcept {
  const u8* old = skb->data;
  skb_pull(skb, wire::vlan_tag_length);
  std::memmove(skb->data, old, addresses_length);
}

}  // namespace tarvelo::stack
