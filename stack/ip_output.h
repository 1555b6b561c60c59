// SPDX-License-Identifier: GPL-2.0-only
//
// The way out of an IPv4 packet: cut to the device's MTU, then to the next hop by the one function
// that the device's kind has. A device kind that is stacked on others puts its header on there.
//
// All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "stack/config.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes a finished packet, `data` at its IP header, its route attached, `dev` the output device.
/// `slow` when it, or each fragment of it, was sent or waits for its next hop's address.
[[nodiscard]] receive_verdict output_packet(sk_buff* skb);

/// Takes a packet of either family that fits its device, `skb->dev`, and sends it to `next_hop`,
/// which a device without addresses does not look at.
[[nodiscard]] receive_verdict output_to_next_hop(sk_buff* skb, const ip_address& next_hop);

/// Takes a packet that the router has made, complete, and routes it. Only ever to a single host:
/// nothing goes to a broadcast address or back to the router itself.
[[nodiscard]] receive_verdict send_own_packet(sk_buff* skb);

}  // namespace tarvelo::stack
