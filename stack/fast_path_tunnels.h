// SPDX-License-Identifier: GPL-2.0-only
//
// Where the module and the router's tunnels meet: a session that ends is swept from the module's
// caches, and frames that belong to a tunnel's own business are kept from it.
#pragma once

#include "kernel/skbuff.h"
#include "stack/ppp_session.h"
#include "tarvelo/handle.h"

namespace tarvelo::stack {

/// Takes what the module knows by a session's object, not by its device, out of the module's
/// caches; while no handle is published there is none. The device is down or the session closing:
/// nothing enters again. Process context.
void fast_path_sweep(const ppp_session& session) noexcept;

/// True for a frame with a tunnel's packet that only the ends of the tunnel understand, PPP control
/// and compressed data in PPTP as the module says, or that does not come from its other end: the
/// module looks at nothing but the ids. `data` at the Ethernet header, or at the IP header if the
/// device has none. RCU read side, no lock.
[[nodiscard]] bool is_for_tunnel_end(const vok_handle* handle, const sk_buff* skb) noexcept;

}  // namespace tarvelo::stack
