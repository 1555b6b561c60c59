// SPDX-License-Identifier: GPL-2.0-only
//
// What connection tracking tells the module, through the published handle and nothing else. Every
// call is made inside an RCU read side, which unloading waits for; while no handle is published
// each does nothing.
//
// The module's record of a connection is made with the connection and taken back exactly once:
// after the delete call, either when the connection ends or when the module goes. The callers see
// to it that the two do not meet.
#pragma once

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"

namespace tarvelo::stack {

/// Gives a new connection its extension record. Without memory it stays without one, and on the
/// slow path. Stack's lock.
void fast_path_attach(nf_conn* ct) noexcept;

/// Tells the module that a connection is over, and takes the extension record back. Afterwards the
/// module no longer knows the connection, and a second call does nothing. No lock of the module;
/// the registry's lock, or the stack's for a connection that is in the table and so cannot end
/// meanwhile.
void fast_path_forget(nf_conn* ct) noexcept;

/// Removes a living connection from the module's caches and lets it be added again, on whatever
/// path its next packets take. Stack's lock.
void fast_path_take_off(nf_conn* ct) noexcept;

/// Reports a packet that has not yet been translated at this hook. `translated` holds the end that
/// the hook is about to write, null when the connection is not translated. `dev` and the route of
/// the buffer are as the hook has them. May attach a route. Stack's lock, softirq context.
void fast_path_report(sk_buff* skb, nf_inet_hooks hook,
                      const nf_conntrack_tuple* translated) noexcept;

/// Reports a forwarded IPv6 packet: as above, but the module wants `dev` to be the layer-3 device
/// that the packet came in on, so it is that during the call. Stack's lock, softirq context.
void fast_path_report_ipv6(sk_buff* skb) noexcept;

/// True when the module's record of the connection points at the device.
[[nodiscard]] bool fast_path_names_device(const nf_conn* ct, const net_device* dev) noexcept;

/// Clears such pointers; the connection has been taken off before. Stack's lock.
void fast_path_forget_device(nf_conn* ct, const net_device* dev) noexcept;

}  // namespace tarvelo::stack
