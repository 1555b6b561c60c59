// SPDX-License-Identifier: GPL-2.0-only
//
// IPv6 routes: what kernel/route.h says of IPv4 routes holds for them too. A buffer carries either
// kind as its dst_entry; which one it is, `dst_entry::input` and the packet's family tell.
//
// The table knows one route for each prefix. Link-local destinations exist on every device, so they
// are routed by their device and not by this table.
#pragma once

#include "kernel/route.h"
#include "kernel/wire/ip.h"

struct rt6_info {
  dst_entry dst;  ///< first member
  u8 rt_type;     ///< rt_class
  u8 prefix_length;
  wire::in6_addr prefix;
  wire::in6_addr rt6i_gateway;  ///< read through rt6_nexthop(); all zero: on-link
};

/// What a locally made packet is routed by.
struct flowi6 {
  wire::in6_addr saddr;
  wire::in6_addr daddr;
  u8 flowi6_proto;
};

extern "C" {
/// The input functions of forwarding and local routes; call what inet6_set_input() has set and free
/// the buffer when nothing is.
int ip6_forward(sk_buff* skb);
int ip6_input(sk_buff* skb);
void inet6_set_input(const inet_input_ops* ops) noexcept;

/// Adds a route; `gateway` null or all zero: on-link. -EEXIST when the prefix has one, -ENOMEM,
/// -EINVAL when the prefix has bits below its length.
[[nodiscard]] int ip6_route_add(const wire::in6_addr* prefix, u8 prefix_length, rt_class type,
                                const wire::in6_addr* gateway, net_device* dev) noexcept;
/// -ESRCH when there is no such route.
int ip6_route_del(const wire::in6_addr* prefix, u8 prefix_length) noexcept;
/// Removes all routes, or those that leave by `dev`.
void ip6_route_flush(const net_device* dev) noexcept;

/// Finds the route of a received packet for `daddr` and attaches it without a reference; softirq
/// context or RCU read side. 0, or -ENETUNREACH.
int ip6_route_input(sk_buff* skb, const wire::in6_addr* daddr) noexcept;

/// Finds the route of a packet that the router sends itself, with a reference for the caller
/// (dst_release()). Null when there is none.
[[nodiscard]] rt6_info* ip6_route_output(const flowi6* flow) noexcept;

/// The address under which the next hop is found among the neighbours: the route's gateway, or
/// `daddr` when the destination is on-link, or all zero for a device that needs no addresses
/// (point-to-point, loopback) and keeps one entry for all. Valid as long as both arguments.
[[nodiscard]] const wire::in6_addr* rt6_nexthop(const rt6_info* rt,
                                                const wire::in6_addr* daddr) noexcept;
}

static_assert(offsetof(rt6_info, dst) == 0);
