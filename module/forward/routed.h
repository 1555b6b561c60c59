// SPDX-License-Identifier: GPL-2.0-only
//
// The routed path of IPv4: a packet of a cached connection is translated and leaves by the
// connection's output device. The path itself is routed_path.h.
#pragma once

#include "module/core/handle.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"

namespace tarvelo {

/// Forwards an IPv4 frame of a cached connection, or says why not; softirq context. On any result
/// but `fate::forward` the buffer is the caller's and carries no connection of this call.
fate forward_routed(vok_handle* ci, sk_buff* skb, const frame& f);

}  // namespace tarvelo
