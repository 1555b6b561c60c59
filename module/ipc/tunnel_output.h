// SPDX-License-Identifier: GPL-2.0-only
//
// The way out of an entry whose packets leave in a PPTP or L2TP tunnel: the tunnel's outer packets
// have a route and a next hop of their own, and may themselves leave in a PPPoE session.
#pragma once

#include "kernel/skbuff.h"
#include "module/ipc/ppp_sides.h"
#include "tarvelo/ipc_entry.h"

namespace tarvelo {

/// What the outer packets may be carried by.
enum class tunnel_carrier : u8 {
  any,      ///< Ethernet, or a PPPoE session
  not_ppp,  ///< the entry has no place for a second PPPoE side
};

/// Fills in output device, MAC addresses and session of the entry, and for L2TP the TTL that the
/// tunnel's route asks for. False when the tunnel's far end cannot be reached now. `out` is of type
/// PPTP or L2TP; the packet carries its route. Softirq context.
[[nodiscard]] bool leave_by_tunnel(const sk_buff* skb, ipc_entry* entry, const ppp_conn_info& out,
                                   tunnel_carrier carrier);

}  // namespace tarvelo
