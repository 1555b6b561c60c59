// SPDX-License-Identifier: GPL-2.0-only
//
// Layer 2 on the way in: which frames the router takes at all, the offer to the fast path, and who
// gets what the fast path hands back.
//
// The fast path asks neither whom a frame is for nor how often it has gone round. So only frames
// are offered that are addressed to the receiving device itself or to the bridge it is a port of,
// or that go from a host behind this port to one behind another. The offer is made without the
// stack's lock and on all processors at once; everything behind it is under the lock.
#pragma once

#include "kernel/skbuff.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// See router::receive(). Softirq context, stack's lock not held.
[[nodiscard]] receive_verdict receive_frame(sk_buff* skb);

}  // namespace tarvelo::stack
