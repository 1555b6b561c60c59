// SPDX-License-Identifier: GPL-2.0-only
//
// The packets that the router's tunnels send to each other's ends: IPv4 packets of the router's own
// with a PPP frame inside, in L2TP over UDP or in PPTP's GRE.
//
// A packet of a configured session is not tracked: it belongs to no connection but those inside,
// and a translation that happened to use the same ports must not lead it astray. A packet that
// comes out of one tunnel is taken for another only where that one is routed over the first, so
// packets nested more deeply than the router would nest them stop here.
//
// All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "stack/ppp_session.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// The session that a received packet belongs to; null for a packet of none. `data` at its checked
/// IP header, whole (no fragment), `dev` the layer-3 input device.
[[nodiscard]] const ppp_session* session_of_packet(const sk_buff* skb) noexcept;

/// True for a packet that comes from the other end of a tunnel to this one, of whatever session.
/// The same conditions.
[[nodiscard]] bool is_between_tunnel_ends(const sk_buff* skb) noexcept;

/// Takes a packet of a session.
[[nodiscard]] receive_verdict input_tunnel_packet(sk_buff* skb, const ppp_session& session);

/// The outer IPv4 header, addresses in network byte order.
struct outer_header {
  u32 local;
  u32 remote;
  u8 protocol;
  u8 tos;
  u8 ttl;
};

/// Takes what goes behind the outer header, `data` at its first byte, puts the header on and sends
/// the packet by its route. It is never fragmented: the interface's MTU has seen to that.
[[nodiscard]] receive_verdict send_tunnel_packet(sk_buff* skb, const outer_header& header);

}  // namespace tarvelo::stack
