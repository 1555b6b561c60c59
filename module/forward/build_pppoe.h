// SPDX-License-Identifier: GPL-2.0-only
//
// The PPPoE session header (RFC 2516) that the fast path puts on.
#pragma once

#include "kernel/skbuff.h"

namespace tarvelo {

/// Writes the header `at` bytes into the data, in front of the packet; its length covers all that
/// follows, padding too. `sid` in network byte order, `protocol` the PPP protocol in host order.
void build_pppoe(sk_buff* skb, u32 at, u16 sid, u16 protocol);

}  // namespace tarvelo
