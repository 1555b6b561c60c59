// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/if_bridge.h"
#include "kernel/slab.h"

namespace {

void free_bridge(callback_head* head) {
  auto* const br =
      reinterpret_cast<net_bridge*>(reinterpret_cast<u8*>(head) - offsetof(net_bridge, rcu));
  dev_put(br->dev);
  kfree(br);
}

void free_port(callback_head* head) {
  auto* const port = reinterpret_cast<net_bridge_port*>(reinterpret_cast<u8*>(head) -
                                                        offsetof(net_bridge_port, rcu));
  dev_put(port->dev);
  kfree(port);
}

br_fdb_fate remove_if_behind(net_bridge_fdb_entry* entry, void* port) {
  return entry->dst == port ? br_fdb_fate::remove : br_fdb_fate::keep;
}

/// The link in the bridge's list that points at `port`, or the one at its end for null.
net_bridge_port** link_to(net_bridge* br, const net_bridge_port* port) noexcept {
  net_bridge_port** link = &br->port_list;
  while (*link != port)
    link = &(*link)->next;
  return link;
}

}  // namespace

extern "C" {

net_bridge* br_alloc(net_device* dev, u32 fdb_limit) noexcept {
  auto* const br = static_cast<net_bridge*>(kzalloc(sizeof(net_bridge), GFP_KERNEL));
  if (br == nullptr) return nullptr;
  dev_hold(dev);
  dev->priv_flags |= IFF_EBRIDGE;
  br->dev = dev;
  br->fdb_limit = fdb_limit;
  spin_lock_init(&br->hash_lock);
  return br;
}

void br_free(net_bridge* br) noexcept {
  if (br == nullptr) return;
  br_fdb_sweep(br, nullptr, nullptr);
  while (br->port_list != nullptr)
    br_port_del(br->port_list);
  call_rcu(&br->rcu, free_bridge);
}

net_bridge_port* br_port_add(net_bridge* br, net_device* dev) noexcept {
  auto* const port = static_cast<net_bridge_port*>(kzalloc(sizeof(net_bridge_port), GFP_KERNEL));
  if (port == nullptr) return nullptr;
  dev_hold(dev);
  port->br = br;
  port->dev = dev;
  port->state = BR_STATE_DISABLED;
  rcu_assign_pointer(*link_to(br, nullptr), port);
  return port;
}

void br_port_del(net_bridge_port* port) noexcept {
  // First the state: whoever learns after the sweep sees it.
  br_port_set_state(port, BR_STATE_DISABLED);
  br_fdb_sweep(port->br, remove_if_behind, port);
  rcu_assign_pointer(*link_to(port->br, port), port->next);
  call_rcu(&port->rcu, free_port);
}

net_bridge_port* br_port_find(const net_bridge* br, const net_device* dev) noexcept {
  if constexpr (kernel_checked) checked_rcu_held(code_place::here());
  net_bridge_port* port = rcu_dereference(br->port_list);
  while (port != nullptr && port->dev != dev)
    port = rcu_dereference(port->next);
  return port;
}

void br_port_set_state(net_bridge_port* port, u8 state) noexcept {
  write_once(port->state, state);
}

}  // extern "C"
