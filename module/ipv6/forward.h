// SPDX-License-Identifier: GPL-2.0-only
//
// The routed path of IPv6: a packet of a cached connection leaves by the connection's output device
// as it is; only its link layer changes. Neither hop limit nor any checksum is touched: to both
// ends the fast path is not there. The path itself is module/forward/routed_path.h.
#pragma once

#include "module/core/handle.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"

namespace tarvelo {

/// Forwards an IPv6 frame of a cached connection, or says why not; softirq context. On any result
/// but `fate::forward` the buffer is the caller's and carries no connection of this call.
fate _vok_forward_v6(vok_handle* ci, sk_buff* skb, const frame& f);

}  // namespace tarvelo
