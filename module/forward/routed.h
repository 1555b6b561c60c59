// SPDX-License-Identifier: GPL-2.0-only
//
// The routed path: a packet of a cached IPv4 connection is translated and leaves by the
// connection's output device.
//
// The table's lock is taken once and held from the chain walk until the frame is complete, so that
// neither the entry nor what it points at can go away in between; it is free again before the
// driver is called and before any reference is dropped. Until the last test has passed, nothing of
// the frame is changed.
#pragma once

#include "module/core/handle.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"

namespace tarvelo {

/// Forwards an IPv4 frame of a cached connection, or says why not; softirq context. On any result
/// but `fate::forward` the buffer is the caller's and carries no connection of this call.
fate forward_routed(vok_handle* ci, sk_buff* skb, const frame& f);

}  // namespace tarvelo
