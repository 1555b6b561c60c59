// SPDX-License-Identifier: GPL-2.0-only
//
// Links that come up and go down. A device that is stacked on one other goes up and down with it;
// a bridge goes on without the port.
//
// What goes by a link that is down leaves the fast path: the hosts behind it, the neighbours learnt
// on it, the connections that used it. Process context, stack's lock not held.
#pragma once

#include "kernel/netdevice.h"

namespace tarvelo::stack {

/// Brings a device up, and those that are stacked on it.
void link_has_come_up(net_device* dev);
void link_has_gone_down(net_device* dev);

/// The way on from a device has changed, as when a next hop has another hardware address: the
/// connections that use the device, or one that is stacked on it, leave the fast path and may be
/// added anew. Stack's lock.
void path_has_changed(const net_device* dev);

}  // namespace tarvelo::stack
