// SPDX-License-Identifier: GPL-2.0-only
#include "stack/bridge_output.h"

#include "kernel/errno.h"
#include "stack/ethernet_frame.h"

namespace tarvelo::stack {

namespace {

/// Bytes above the link-layer header of the device that the frame is for. A tag that is no VLAN
/// device's is passed on and does not count, as on any Ethernet.
u32 payload_length(const sk_buff* skb) noexcept {
  return skb->len - (is_tagged(skb) ? wire::tagged_ethernet_length : wire::ethernet_length);
}

bool takes_frames(const net_bridge_port* port) noexcept {
  return read_once(port->state) == BR_STATE_FORWARDING;
}

/// The buffer stays the caller's unless true.
bool send_by(const net_bridge_port* port, sk_buff* skb) noexcept {
  if (!takes_frames(port) || payload_length(skb) > port->dev->mtu) return false;
  skb->dev = port->dev;
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  skb->network_header = static_cast<u16>(skb->mac_header + skb->len - payload_length(skb));
  return dev_hard_start_xmit(skb) == NETDEV_TX_OK;
}

bool send_copy_by(const net_bridge_port* port, const sk_buff* skb) noexcept {
  sk_buff* copy = skb_copy_plain(skb, 0, GFP_ATOMIC);
  if (copy == nullptr) return false;
  if (send_by(port, copy)) return true;
  kfree_skb(copy);
  return false;
}

/// The router's own frames, and those of the fast path. What comes of them is in the counters of
/// the ports, too.
int transmit(sk_buff* skb, net_device* dev) {
  if (skb_headlen(skb) < wire::ethernet_length) return -EINVAL;
  const auto* br = static_cast<const net_bridge*>(dev->priv);
  rcu_read_lock();
  bool sent = false;
  if (!is_group_mac(ethernet_header(skb)->h_dest)) {
    sent = bridge_send(skb, br, nullptr);
  } else if (bridge_flood(skb, br, nullptr)) {
    kfree_skb(skb);
    sent = true;
  }
  rcu_read_unlock();
  return sent ? NETDEV_TX_OK : -ENETUNREACH;
}

}  // namespace

bool bridge_send(sk_buff* skb, const net_bridge* br, const net_bridge_port* from) {
  const net_bridge_fdb_entry* host = br_fdb_find(br, ethernet_header(skb)->h_dest);
  if (host != nullptr) {
    const net_bridge_port* port = rcu_dereference(host->dst);
    return !host->is_local && port != from && send_by(port, skb);
  }
  if (!bridge_flood(skb, br, from)) return false;
  kfree_skb(skb);
  return true;
}

bool bridge_flood(const sk_buff* skb, const net_bridge* br, const net_bridge_port* from) {
  bool sent = false;
  const net_bridge_port* port = rcu_dereference(br->port_list);
  for (; port != nullptr; port = rcu_dereference(port->next)) {
    if (port != from && takes_frames(port) && send_copy_by(port, skb)) sent = true;
  }
  return sent;
}

const net_device_ops* bridge_device_ops() noexcept {
  static constexpr net_device_ops operations{.ndo_start_xmit = &transmit};
  return &operations;
}

}  // namespace tarvelo::stack
