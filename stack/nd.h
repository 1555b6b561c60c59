// SPDX-License-Identifier: GPL-2.0-only
//
// Neighbour discovery for IPv6 (RFC 4861, section 7): what is on the wire. What is known of the
// neighbours is kept by the neighbour cache, as for ARP.
//
// A message counts only with the hop limit that no router can have passed on. The router answers
// for the addresses of the device that a solicitation came in on, and for no others. It believes a
// sender only about an address that it would itself reach directly by that device. Advertisements
// of routers, and redirects, are not for a router to follow.
//
// All under the stack's lock.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes a neighbour discovery message, `data` at its checked IPv6 header, its transport header
/// marked. `slow` when it was answered or learnt from.
[[nodiscard]] receive_verdict input_nd(sk_buff* skb);

/// Asks for an address; `mac` is whom to ask, null for everyone. A question that cannot be sent is
/// lost like any other.
void nd_solicit(net_device* dev, const wire::in6_addr& target, const u8* mac);

/// The address that the interface with this MAC address gives itself (RFC 4291, appendix A).
[[nodiscard]] wire::in6_addr link_local_address(const u8 mac[wire::mac_length]) noexcept;

}  // namespace tarvelo::stack
