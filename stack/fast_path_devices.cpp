// SPDX-License-Identifier: GPL-2.0-only
#include "stack/fast_path_devices.h"

#include "kernel/if_vlan.h"
#include "stack/published_handle.h"

namespace tarvelo::stack {

namespace {

/// Local entries are the bridge's own addresses, which are no hosts behind it.
bool is_reported(const net_bridge_fdb_entry* entry) noexcept {
  return !entry->is_local && fast_path_knows_port(rcu_dereference(entry->dst));
}

void report(net_bridge_fdb_entry* entry, int type) noexcept {
  const published_handle handle;
  if (handle) handle->_br_brc_notify(handle.get(), RTNLGRP_NEIGH, type, entry);
}

}  // namespace

void fast_path_sweep(net_device* dev) noexcept {
  const published_handle handle;
  if (handle) handle->_vok_ipc_delete_by_dev(handle.get(), dev);
}

bool fast_path_knows_port(const net_bridge_port* port) noexcept {
  const net_device* dev = port->dev;
  return !is_vlan_dev(dev) || (vlan_dev_flags(dev) & VLAN_FLAG_REORDER_HDR) != 0;
}

void fast_path_host_learnt(net_bridge_fdb_entry* entry) noexcept {
  if (is_reported(entry)) report(entry, RTM_NEWNEIGH);
}

void fast_path_host_moved(net_bridge_fdb_entry* entry) noexcept {
  // To where the module cannot follow: there it is gone.
  report(entry, is_reported(entry) ? RTM_NEWNEIGH : RTM_DELNEIGH);
}

void fast_path_host_gone(net_bridge_fdb_entry* entry) noexcept {
  if (is_reported(entry)) report(entry, RTM_DELNEIGH);
}

bool fast_path_host_seen(const net_bridge_fdb_entry* entry, u32* when) noexcept {
  const published_handle handle;
  if (!handle) return false;
  const auto bridge_id = static_cast<u16>(rcu_dereference(entry->dst)->br->dev->ifindex);
  const brc* host = handle->_vok_brc_lkup_brid(handle.get(), entry->addr, bridge_id);
  if (host == nullptr) return false;
  *when = read_once(host->last_seen);
  return *when != 0;
}

}  // namespace tarvelo::stack
