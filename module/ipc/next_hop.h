// SPDX-License-Identifier: GPL-2.0-only
//
// The way out of a packet that is about to be added: the device of its route and the MAC addresses
// that its frames will carry.
#pragma once

#include "kernel/neighbour.h"
#include "kernel/netdevice.h"
#include "kernel/route.h"
#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"

namespace tarvelo {

struct next_hop {
  net_device* dev;
  u8 dmac[wire::mac_length];
  u8 smac[wire::mac_length];
};

/// Reads the MAC addresses of the next hop that has an entry under `key` in the neighbour table of
/// either family. False when its hardware address is not known; any context.
[[nodiscard]] bool read_next_hop(neigh_table* table, const void* key, net_device* dev,
                                 next_hop* hop);

/// Finds the way out of an IPv4 packet for `destination` (its translated one where that is already
/// known; network byte order). Attaches a route to a packet that has none. False when the packet is
/// not plainly forwarded or the next hop's hardware address is not known; softirq context.
[[nodiscard]] bool find_next_hop(sk_buff* skb, const wire::iphdr* ip, u32 destination,
                                 next_hop* hop);

/// Finds the next hop of a packet for `destination` that takes that route. False when its hardware
/// address is not known; any context.
[[nodiscard]] bool find_next_hop_on(const rtable* route, u32 destination, next_hop* hop);
/// True when that next hop's Ethernet header is there, ready made.
[[nodiscard]] bool has_cached_header(const rtable* route, u32 destination);

}  // namespace tarvelo
