// SPDX-License-Identifier: GPL-2.0-only
//
// What the devices tell the module: that one goes, and where the hosts behind a bridge are. While
// no handle is published each call does nothing.
//
// A host behind a VLAN port that keeps its tags in line is not reported: the module would send to
// it without a tag.
#pragma once

#include "kernel/if_bridge.h"
#include "kernel/netdevice.h"

namespace tarvelo::stack {

/// Takes a device that is down out of the module's caches. Process context.
void fast_path_sweep(net_device* dev) noexcept;

/// True when the module is told of hosts behind this port.
[[nodiscard]] bool fast_path_knows_port(const net_bridge_port* port) noexcept;

/// An entry of a bridge's database is new, or new to the module. Any context; the bridge's hash
/// lock may be held.
void fast_path_host_learnt(net_bridge_fdb_entry* entry) noexcept;
/// An entry has got another port. Likewise.
void fast_path_host_moved(net_bridge_fdb_entry* entry) noexcept;
/// An entry is about to leave the database; its port is still there. Likewise.
void fast_path_host_gone(net_bridge_fdb_entry* entry) noexcept;

/// When the module last bridged a frame of the host (jiffies). False when it has not, or does not
/// know the host. Likewise.
[[nodiscard]] bool fast_path_host_seen(const net_bridge_fdb_entry* entry, u32* when) noexcept;

}  // namespace tarvelo::stack
