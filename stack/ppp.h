// SPDX-License-Identifier: GPL-2.0-only
//
// PPP interfaces as layer-3 devices: where packets that have been unwrapped come in, and where
// packets go out to be wrapped.
//
// A packet that is wrapped or unwrapped starts anew: it is another packet on another device, so
// neither its connection, nor its route, nor what the fast path has noted on it goes along. An
// interface counts IP packets, in the slow path as in the fast path.
//
// All under the stack's lock, but for the driver of the interfaces: the fast path sends by it, too.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"
#include "stack/ppp_session.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes the payload of a PPP frame that has come in by a session: `data` at its first byte, the
/// length that of the payload. What is not IP is dropped: nothing is negotiated here.
[[nodiscard]] receive_verdict input_ppp_payload(sk_buff* skb, const ppp_session& session,
                                                u16 protocol);

/// The same from the PPP framing on, as tunnels carry it.
[[nodiscard]] receive_verdict input_ppp_frame(sk_buff* skb, const ppp_session& session);

/// Takes an IP packet that leaves by a PPP interface, `skb->dev`, and fits its MTU: wraps it and
/// sends it on its way.
[[nodiscard]] receive_verdict output_ppp(sk_buff* skb);

/// The driver of PPP interfaces. Must not be called with the stack's lock held: see output_ppp().
[[nodiscard]] const net_device_ops* ppp_device_ops() noexcept;

/// Takes from a packet what belongs to its way so far.
void start_anew(sk_buff* skb) noexcept;

/// The PPP protocol number of the IP packet in a buffer.
[[nodiscard]] u16 ppp_protocol_of(const sk_buff* skb) noexcept;

}  // namespace tarvelo::stack
