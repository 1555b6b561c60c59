// SPDX-License-Identifier: GPL-2.0-only
//
// Packet hooks: functions that other kernel code attaches to four points of the fast path through
// `vok_handle::_vok_register_hook` and `_vok_unregister_hook`, much as netfilter hooks attach to
// the stack.
//
// A hook is called in softirq context, at the post-routing point under the connection table's
// lock: it must not sleep and must not call the handle's operations. The record stays the
// registering module's; it may be freed or used again only after an RCU grace period has passed
// since its removal.
#pragma once

#include "tarvelo/fwd.h"

enum vok_hook_point : std::uint32_t {
  VOK_HOOK_BRIDGE_ROUTING = 0,   ///< bridged path, after both bridge lookups
  VOK_HOOK_IP_PRE_ROUTING = 1,   ///< routed path, before the header tests
  VOK_HOOK_IP_POST_ROUTING = 2,  ///< routed path, connection validated, nothing rewritten yet
  VOK_HOOK_XMIT = 3,             ///< just before the driver gets the buffer
};

enum vok_verdict : std::uint32_t {
  VOK_DROP = 0,    ///< free the buffer and report it consumed
  VOK_ACCEPT = 1,  ///< go on
  VOK_DIVERT = 2,  ///< hand the buffer back to the kernel; at VOK_HOOK_XMIT: the hook owns it now
};

/// `hooknum` is a `vok_hook_point`, `pf` the protocol family (2 IPv4, 10 IPv6). Returns a
/// `vok_verdict`; a value with both low bits set is logged and passed over.
using vok_hook_fn = unsigned int (*)(unsigned int hooknum, std::uint8_t pf, sk_buff* skb);

struct vok_hook_list {
  vok_hook_list* next;
  vok_hook_list* prev;
};

struct vok_hook_ops {
  vok_hook_list list;  ///< links in one registry list; first member
  vok_hook_fn hook;
  void* owner;            ///< not used by the registry
  std::uint8_t pf;        ///< family, below `vok_hook_families`; not checked
  std::uint32_t hooknum;  ///< `vok_hook_point`; not checked
  std::int32_t priority;  ///< hooks run in ascending order, equals in order of registration
  const char* name;       ///< registering module, for the error message
};

inline constexpr unsigned vok_hook_families = 11;
inline constexpr unsigned vok_hook_points = 4;

static_assert(offsetof(vok_hook_ops, list) == 0);
static_assert(tarvelo::binding_layout(offsetof(vok_hook_ops, hook), 8));
static_assert(tarvelo::binding_layout(offsetof(vok_hook_ops, pf), 16));
static_assert(tarvelo::binding_layout(offsetof(vok_hook_ops, hooknum), 20));
static_assert(tarvelo::binding_layout(offsetof(vok_hook_ops, priority), 24));
static_assert(tarvelo::binding_layout(offsetof(vok_hook_ops, name), 28));
