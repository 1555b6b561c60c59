// SPDX-License-Identifier: GPL-2.0-only
//
// The way out of IPv6 packets that the router makes itself, and their headers. All under the
// stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"
#include "stack/config.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Hop limit of what is for the link alone, so that a receiver can tell that no router has been
/// passed (RFC 4861, 3.1).
inline constexpr u8 on_link_hop_limit = 255;

/// Writes a header without extension headers. `payload` is in bytes, host order.
void write_ipv6_header(wire::ipv6hdr* ip, const wire::in6_addr& saddr, const wire::in6_addr& daddr,
                       u8 protocol, u32 payload) noexcept;

/// Where a packet with its route attached goes next.
[[nodiscard]] ip_address ipv6_next_hop(const sk_buff* skb) noexcept;

/// Takes a packet that the router has made, complete, and routes it; one to a link-local address
/// goes out on `link`. Only ever to a single host, and never back to the router itself.
[[nodiscard]] receive_verdict send_own_ipv6_packet(sk_buff* skb, net_device* link);

}  // namespace tarvelo::stack
