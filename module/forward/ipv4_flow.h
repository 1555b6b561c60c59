// SPDX-License-Identifier: GPL-2.0-only
//
// The flow of an IPv4 packet, which may be inside a tunnel.
#pragma once

#include "module/forward/flow.h"
#include "module/ipc/table.h"

namespace tarvelo {

using ipv4_flow = packet_flow<flow_key>;

/// Reads the flow of an IPv4 frame; `fate::forward` when the fast path can serve packets like it. A
/// last fragment's record is gone afterwards, whatever becomes of the fragment. Softirq context.
fate read_flow(const sk_buff* skb, const frame& f, ipv4_flow* flow);

}  // namespace tarvelo
