// SPDX-License-Identifier: GPL-2.0-only
//
// The flow of an IPv6 packet. Only a transport header that follows the fixed header directly is
// found, or a fragment header in between: packets with other extension headers are rare, and what
// they ask for is the stack's business.
#pragma once

#include "module/forward/flow.h"
#include "module/ipv6/fragment.h"
#include "module/ipv6/table.h"

namespace tarvelo {

using ipv6_flow = packet_flow<flow_key_v6>;

/// True for packets that may go through a router at all: not link-local at either end, and not to a
/// group. The header is there.
fate check_addresses(const wire::ipv6hdr* ip);

/// Reads the flow of an IPv6 frame; `fate::forward` when the fast path can serve packets like it. A
/// last fragment's record is gone afterwards, whatever becomes of the fragment. Softirq context.
fate read_flow(const sk_buff* skb, frame f, ipv6_flow* flow);

/// The key of the datagram that a fragment, already read, belongs to.
[[nodiscard]] frag_key_v6 fragment_id_of(const sk_buff* skb, const ipv6_flow& flow);

}  // namespace tarvelo
