// SPDX-License-Identifier: GPL-2.0-only
#include "ports/port.h"

#include "kernel/slab.h"
#include "kernel/wire/ethernet.h"

namespace tarvelo::ports {

namespace {

int start_xmit(sk_buff* skb, net_device* dev) {
  auto* to = static_cast<port*>(dev->priv);
  if (to == nullptr) {
    kfree_skb(skb);
  } else {
    to->transmit(skb);
  }
  return NETDEV_TX_OK;
}

}  // namespace

const net_device_ops port_device_ops{.ndo_start_xmit = start_xmit};

void port::attach(net_device* dev) noexcept {
  dev_ = dev;
  dev->priv = this;
}

port_statistics port::statistics() const noexcept {
  return {.received = received_.load(std::memory_order_relaxed),
          .sent = sent_.load(std::memory_order_relaxed),
          .receive_errors = receive_errors_.load(std::memory_order_relaxed),
          .transmit_errors = transmit_errors_.load(std::memory_order_relaxed)};
}

sk_buff* alloc_receive_buffer(u32 room) noexcept {
  sk_buff* skb = alloc_skb(receive_headroom + room, GFP_ATOMIC);
  if (skb != nullptr) skb_reserve(skb, receive_headroom);
  return skb;
}

void finish_received(sk_buff* skb, net_device* dev, link_layer link) noexcept {
  skb->dev = dev;
  skb->priority = 0;
  if (link != link_layer::ethernet || skb->len < wire::tagged_ethernet_length) return;
  const auto* eth = reinterpret_cast<const wire::vlan_ethhdr*>(skb->data);
  if (eth->h_vlan_proto.host() != wire::ethertype::vlan) return;
  skb->priority = static_cast<u32>(eth->h_vlan_TCI.host() >> wire::vlan_priority_shift);
}

link_layer link_layer_of(const net_device* dev) noexcept {
  return dev->type == ARPHRD_ETHER ? link_layer::ethernet : link_layer::raw_ip;
}

}  // namespace tarvelo::ports
