// SPDX-License-Identifier: GPL-2.0-only
#include "module/brc/notify.h"

#include "kernel/if_vlan.h"
#include "kernel/printk.h"
#include "module/brc/table.h"
#include "module/forward/mac.h"

namespace tarvelo {
namespace {

constexpr const char* reporter = "_br_brc_notify";

/// Null for an address of the bridge device itself.
[[nodiscard]] const net_bridge_port* port_of(const net_bridge_fdb_entry* fdb) {
  return rcu_dereference(fdb->dst);
}

[[nodiscard]] bool is_acceptable(const vok_handle* ci, unsigned group,
                                 const net_bridge_fdb_entry* fdb) {
  if (group != RTNLGRP_NEIGH || ci == nullptr || fdb->is_local) return false;
  const net_bridge_port* port = port_of(fdb);
  return port != nullptr && port->br != nullptr;
}

void report_refusal(unsigned group, int type, const net_bridge_fdb_entry* fdb) {
  printk("%s %d: the bridge add fdb failed\n", reporter, __LINE__);
  printk("%s %d: group = %d, type = %d, fdb->is_local = %d\n", reporter, __LINE__,
         static_cast<int>(group), type, fdb->is_local ? 1 : 0);
}

/// The host as the cache is to know it.
[[nodiscard]] ::brc describe(const net_bridge_fdb_entry* fdb, const net_bridge_port* port) {
  ::brc host = {};
  copy_mac(host.dmac, fdb->addr);
  host.sendif = port->dev;
  host.tag_mode = static_cast<u8>(tag_mode::untag);
  host.bridgeID = bridge_id(port->br->dev);
  host.refcnt = 1;
  if (!is_vlan_dev(port->dev)) return host;

  host.sendif = vlan_dev_real_dev(port->dev);
  host.vlan_dev = port->dev;
  host.VLANID = vlan_dev_vlan_id(port->dev);
  if ((vlan_dev_flags(port->dev) & VLAN_FLAG_REORDER_HDR) != 0) {
    host.tag_mode = static_cast<u8>(tag_mode::tag);
  }
  return host;
}

/// Another report of the same host may come in between; the cache refuses a second entry itself.
void learn(vok_handle* ci, const net_bridge_fdb_entry* fdb, const net_bridge_port* port) {
  if (read_once(port->state) != BR_STATE_FORWARDING) return;
  const ::brc host = describe(fdb, port);
  if (_vok_brc_lkup(ci, host.dmac) == nullptr) {
    (void)_vok_brc_add(ci, &host);
  } else {
    _vok_brc_update(ci, &host);
  }
}

}  // namespace

void _br_brc_notify(vok_handle* ci, unsigned int group, int type, net_bridge_fdb_entry* fdb) {
  if (!is_acceptable(ci, group, fdb)) {
    report_refusal(group, type, fdb);
    return;
  }
  const net_bridge_port* port = port_of(fdb);
  switch (type) {
    case RTM_NEWNEIGH:
      learn(ci, fdb, port);
      break;
    case RTM_DELNEIGH:
      _vok_brc_delete(ci, fdb->addr, bridge_id(port->br->dev));
      break;
    default:
      printk("%s %d: the type:%d is error\n", reporter, __LINE__, type);
      break;
  }
}

}  // namespace tarvelo
