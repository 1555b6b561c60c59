// SPDX-License-Identifier: GPL-2.0-only
//
// IPv6 packets as they come in on a layer-3 device: checked, tracked, routed, and handed to
// forwarding or local delivery (RFC 8200). It does not matter here which kind of link they came by.
//
// Two things differ from IPv4. A router does not put datagrams together for others: fragments are
// put together for tracking only, and go on as they came. And link-local addresses mean something
// on their own link only: they are delivered by their device and never forwarded.
//
// All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes a packet that was sent to the router's link address: `data` at what should be an IPv6
/// header, `dev` and `rx_dev` the layer-3 input device, no connection and no route attached. Bytes
/// behind the packet (padding) are cut off.
[[nodiscard]] receive_verdict input_ipv6_packet(sk_buff* skb);

/// The same for a packet sent to a group on the link: of these only neighbour discovery concerns
/// the router.
[[nodiscard]] receive_verdict input_ipv6_group_packet(sk_buff* skb);

}  // namespace tarvelo::stack
