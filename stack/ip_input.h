// SPDX-License-Identifier: GPL-2.0-only
//
// IPv4 packets as they come in on a layer-3 device: checked, put together, tracked, routed, and
// handed to forwarding or local delivery. It does not matter here which kind of link they came by.
//
// All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes a packet: `data` at what should be an IPv4 header, `dev` and `rx_dev` the layer-3 input
/// device, no connection and no route attached. Bytes behind the packet (padding) are cut off.
[[nodiscard]] receive_verdict input_ip_packet(sk_buff* skb);

/// Local delivery: takes a packet for one of the router's addresses, its route attached.
[[nodiscard]] receive_verdict deliver_locally(sk_buff* skb);

}  // namespace tarvelo::stack
