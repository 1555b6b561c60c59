// SPDX-License-Identifier: GPL-2.0-only
//
// Fragmentation of IPv4 packets on their way out (RFC 791). Under the stack's lock.
#pragma once

#include "kernel/skbuff.h"

namespace tarvelo::stack {

/// Cuts a packet into fragments of at most `mtu` bytes, linked by `next` in order. Takes the packet
/// in any case. Each fragment has `data` at its IP header, the packet's device, priority and
/// connection, and headroom for any encapsulation, but no route. Null when the packet may not be
/// fragmented, the MTU holds no data, or memory is short.
[[nodiscard]] sk_buff* fragment_packet(sk_buff* skb, u32 mtu);

}  // namespace tarvelo::stack
