// SPDX-License-Identifier: GPL-2.0-only
//
// IPv4 packets inside PPTP (GRE, RFC 2637) and L2TP over UDP (RFC 2661): recognised and parsed
// once. Such a packet belongs to the connection inside, not to the flow that carries it.
//
// All offsets count from the start of the data, and everything is bounds-checked against the end
// of the outer packet before it is read. The documented minimum lengths are minima only.
#pragma once

#include "kernel/skbuff.h"
#include "module/forward/fate.h"

namespace tarvelo {

enum class tunnel_kind : u8 {
  none,
  pptp,
  l2tp,
};

struct tunnel_header {
  tunnel_kind kind;
  u32 header;  ///< offset of the GRE or L2TP header
  u32 inner;   ///< offset of the IP header inside
};

/// Reads the tunnel of a GRE packet whose GRE header is at `gre`; `end` is the offset of the first
/// byte that may not be read.
fate find_pptp(const sk_buff* skb, u32 gre, u32 end, tunnel_header* tunnel);

/// True when the UDP payload at that offset is an L2TP data message that carries IPv4 in PPP. Ports
/// are not looked at: both ends may use any. What only looks like one is plain UDP.
[[nodiscard]] bool find_l2tp(const sk_buff* skb, u32 payload, u32 end, tunnel_header* tunnel);

}  // namespace tarvelo
