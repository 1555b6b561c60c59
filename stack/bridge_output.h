// SPDX-License-Identifier: GPL-2.0-only
//
// A frame on its way out of a bridge: to the port its destination is behind, or to all.
//
// Needs an RCU read side and no lock: the fast path may send on a VLAN device that is stacked on a
// bridge. `data` is at the Ethernet header.
#pragma once

#include "kernel/if_bridge.h"
#include "kernel/skbuff.h"

namespace tarvelo::stack {

/// Sends a frame for a single host by the port that it is behind, or by all when that is not known,
/// but never by `from` (null: the frame is the router's own). True when it has gone out somewhere;
/// otherwise the buffer stays the caller's.
[[nodiscard]] bool bridge_send(sk_buff* skb, const net_bridge* br, const net_bridge_port* from);

/// Sends copies by all forwarding ports but `from`; the buffer stays the caller's. True when at
/// least one has gone out.
[[nodiscard]] bool bridge_flood(const sk_buff* skb, const net_bridge* br,
                                const net_bridge_port* from);

/// Transmit function of bridge devices; their `priv` is the net_bridge.
[[nodiscard]] const net_device_ops* bridge_device_ops() noexcept;

}  // namespace tarvelo::stack
