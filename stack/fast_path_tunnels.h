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

/// True for a frame with a PPTP packet inside which the module says is PPP control or compressed
/// data: only the ends of the tunnel understand it. `data` at the Ethernet header, or at the IP
/// header if the device has none. RCU read side, no lock.
[[nodiscard]] bool is_tunnel_control(const vok_handle* handle, const sk_buff* skb) noexcept;

}  // namespace tarvelo::stack
