// SPDX-License-Identifier: GPL-2.0-only
//
// Where kernel and fast path meet.
#pragma once

#include "kernel/skbuff.h"
#include "tarvelo/handle.h"

extern "C" {
/// The published handle, null while no module is loaded. Published and withdrawn by the module;
/// read with read_once() inside an RCU read side, which unloading waits for.
extern vok_handle* kcih;

/// Sends a buffer on its device at once. Takes the buffer and returns 0; otherwise the buffer stays
/// the caller's.
int km_fast_xmit_skb(sk_buff* skb) noexcept;
}
