// SPDX-License-Identifier: GPL-2.0-only
//
// IPv4 routes. The table maps a destination prefix to a route object (`rtable`), longest prefix
// first; addresses of the router itself are routes of type RTN_LOCAL. A route object is counted:
// the table holds one reference, each buffer that carries it with a reference another; its memory
// goes after an RCU grace period. A buffer may also carry a route without a reference, within one
// RCU read side.
//
// Addresses are in network byte order. Changes are process context or the stack's lock; look-ups
// any context.
#pragma once

#include "kernel/atomic.h"
#include "kernel/netdevice.h"
#include "kernel/rcupdate.h"
#include "kernel/skbuff.h"
#include "kernel/types.h"

struct dst_entry {
  net_device* dev;             ///< output device
  int (*input)(sk_buff* skb);  ///< ip_forward, ip_local_deliver, ip6_forward, ...
  atomic_t refcnt;
  callback_head rcu;
};

enum rt_class : u8 {
  RTN_UNICAST = 1,
  RTN_LOCAL = 2,
  RTN_BROADCAST = 3,
  RTN_UNREACHABLE = 7,
};

struct rtable {
  dst_entry dst;  ///< first member
  u8 rt_type;     ///< rt_class
  u8 prefix_length;
  u32 prefix;
  u32 gateway;    ///< read through rt_next_hop(); 0: on-link
  u32 hop_limit;  ///< metric, 0: none set
};

/// What a locally made packet is routed by.
struct flowi4 {
  u32 saddr;
  u32 daddr;
  u8 flowi4_proto;
};

/// What runs for packets that take a route; set once by the stack.
struct inet_input_ops {
  int (*forward)(sk_buff* skb);
  int (*local_deliver)(sk_buff* skb);
};

extern "C" {
/// The input functions of forwarding and local routes; call what inet_set_input() has set and free
/// the buffer when nothing is.
int ip_forward(sk_buff* skb);
int ip_local_deliver(sk_buff* skb);
void inet_set_input(const inet_input_ops* ops) noexcept;

/// Adds a route; the table takes no other reference than the object's first. -EEXIST when the
/// prefix has one, -ENOMEM, -EINVAL when the prefix has bits below its length.
[[nodiscard]] int ip_route_add(u32 prefix, u8 prefix_length, rt_class type, u32 gateway,
                               net_device* dev) noexcept;
/// -ESRCH when there is no such route.
int ip_route_del(u32 prefix, u8 prefix_length) noexcept;
/// Removes all routes, or those that leave by `dev`.
void ip_route_flush(const net_device* dev) noexcept;

/// Finds the route of a received packet and attaches it without a reference; softirq context or RCU
/// read side. 0, or -ENETUNREACH.
int ip_route_input_noref(sk_buff* skb, u32 daddr, u32 saddr, u8 tos, net_device* dev) noexcept;

/// Finds the route of a packet that the router sends itself, with a reference for the caller
/// (dst_release()). Null when there is none.
[[nodiscard]] rtable* ip_route_output_flow(const flowi4* flow) noexcept;

/// The route's gateway, 0 when the destination is on-link.
[[nodiscard]] u32 rt_next_hop(const rtable* rt) noexcept;
/// The hop-limit metric of an IPv4 route, or 0.
[[nodiscard]] u32 dst_metric_hoplimit(const dst_entry* dst) noexcept;
extern int sysctl_ip_default_ttl;

void hosted_dst_release(dst_entry* dst, const code_place* at) noexcept;

/// Fills in an IPv4 header's checksum.
void ip_send_check(void* iph) noexcept;
}

/// Set in `_skb_refdst` while the route is attached without a reference.
inline constexpr std::uintptr_t SKB_DST_NOREF = 1;

/// Null is allowed.
inline void dst_release(dst_entry* dst, code_place at = code_place::here()) noexcept {
  if (dst != nullptr) hosted_dst_release(dst, &at);
}

inline void dst_hold(dst_entry* dst) noexcept {
  atomic_inc(&dst->refcnt);
}

[[nodiscard]] inline dst_entry* skb_dst(const sk_buff* skb) noexcept {
  return reinterpret_cast<dst_entry*>(skb->_skb_refdst & ~SKB_DST_NOREF);
}

[[nodiscard]] inline bool skb_dst_is_noref(const sk_buff* skb) noexcept {
  return (skb->_skb_refdst & SKB_DST_NOREF) != 0 && skb_dst(skb) != nullptr;
}

inline void skb_dst_drop(sk_buff* skb, code_place at = code_place::here()) noexcept {
  if (skb->_skb_refdst == 0) return;
  if (!skb_dst_is_noref(skb)) dst_release(skb_dst(skb), at);
  skb->_skb_refdst = 0;
}

/// Attaches a route; the caller's reference goes to the buffer. Any earlier route is dropped first.
inline void skb_dst_set(sk_buff* skb, dst_entry* dst) noexcept {
  skb->_skb_refdst = reinterpret_cast<std::uintptr_t>(dst);
}

inline void skb_dst_set_noref(sk_buff* skb, dst_entry* dst) noexcept {
  skb->_skb_refdst = reinterpret_cast<std::uintptr_t>(dst) | SKB_DST_NOREF;
}

/// Turns a route attached without a reference into one with; drops it when it is already being
/// freed.
inline void skb_dst_force(sk_buff* skb) noexcept {
  if (!skb_dst_is_noref(skb)) return;
  dst_entry* dst = skb_dst(skb);
  skb->_skb_refdst = atomic_inc_not_zero(&dst->refcnt) ? reinterpret_cast<std::uintptr_t>(dst) : 0;
}

static_assert(offsetof(rtable, dst) == 0);
