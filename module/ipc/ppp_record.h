// SPDX-License-Identifier: GPL-2.0-only
//
// What a new IPv4 entry must know to take off and put on PPP encapsulations: the wrapping bits of
// its flags, session ids, the tunnel's parameters, the PPP interface to account on, and where the
// frames go below PPP. An entry has one tunnel at the most, on one of its sides.
#pragma once

#include "kernel/skbuff.h"
#include "module/ipc/ppp_sides.h"
#include "tarvelo/ipc_entry.h"

namespace tarvelo {

/// True for the twelve combinations that an entry can hold.
[[nodiscard]] bool is_recordable(u16 code);

/// Fills in an entry that has room for as many session ids as `sides` says and whose output device
/// and MAC addresses are those of the packet's route. False when the flow must not be cached.
/// Softirq context, the table's lock not held.
[[nodiscard]] bool record_ipc_ppp(const sk_buff* skb, ipc_entry* entry, const ppp_sides& sides);

}  // namespace tarvelo
