// SPDX-License-Identifier: GPL-2.0-only
//
// ARP for IPv4 over Ethernet (RFC 826, 5227): what is on the wire. What is known of the neighbours
// is kept by the neighbour cache.
//
// The router answers for the addresses of the device that a request came in on, and for no others.
// It believes a sender only about an address that it would itself reach directly by that device.
//
// All under the stack's lock. Addresses are in network byte order.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes a received packet, `data` at what should be an ARP header. `slow` when it was answered or
/// learnt from.
[[nodiscard]] receive_verdict input_arp(sk_buff* skb);

/// Asks for an address; `mac` is whom to ask, null for everyone. A question that cannot be sent is
/// lost like any other.
void arp_request(net_device* dev, u32 target, const u8* mac);

}  // namespace tarvelo::stack
