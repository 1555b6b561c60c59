// SPDX-License-Identifier: GPL-2.0-only
//
// Forwarding of an IPv4 packet from its route to its output device: time to live, size, the
// tracker's post-routing hook. All under the stack's lock.
#pragma once

#include "kernel/skbuff.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// Takes a packet with `data` at its checked IP header and its route attached.
[[nodiscard]] receive_verdict forward_packet(sk_buff* skb);

}  // namespace tarvelo::stack
