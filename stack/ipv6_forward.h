// SPDX-License-Identifier: GPL-2.0-only
//
// Forwarding of an IPv6 packet from its route to its output device: hop limit, size, the tracker's
// post-routing hook. A router never cuts an IPv6 packet (RFC 8200, 5). All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "stack/packet_chain.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes a packet with `data` at its checked header and its route attached. With `originals`, the
/// fragments that it was put together from, these are sent in its place.
[[nodiscard]] receive_verdict forward_ipv6_packet(sk_buff* skb, packet_chain originals);

}  // namespace tarvelo::stack
