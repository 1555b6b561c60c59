// SPDX-License-Identifier: GPL-2.0-only
//
// An Ethernet frame on its way up through the devices that are stacked on each other: from the port
// to the VLAN device that its tag names, through the bridge that the device is a port of to the
// bridge device, and so on, until it is forwarded or a protocol takes it.
#pragma once

#include "kernel/if_bridge.h"
#include "kernel/skbuff.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Which device a frame belongs to, one step up from the device that it came in on.
struct frame_place {
  net_device* dev;        ///< that device, or the VLAN device that the tag names
  net_bridge_port* port;  ///< its place in a bridge; null without one
  bool foreign_tag;       ///< the tag names no VLAN device here
};

/// The place of a frame with a whole Ethernet header at `data`, `dev` the device it came in on. RCU
/// read side, no lock.
[[nodiscard]] frame_place place_of(const sk_buff* skb) noexcept;

/// Takes a frame that the fast path has not taken. Stack's lock.
[[nodiscard]] receive_verdict input_frame(sk_buff* skb);

}  // namespace tarvelo::stack
