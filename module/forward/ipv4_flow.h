// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv4 side of a frame, parsed once: which flow the packet belongs to, where its headers are,
// and what it came in. With a tunnel the packet inside is the one that is matched and translated;
// everything about the packet is then about the inner one.
//
// Everything is checked against the linear length before it is read, and against the lengths that
// the headers claim.
#pragma once

#include "kernel/wire/ip.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"
#include "module/forward/ipv4_fragment.h"
#include "module/forward/tunnel.h"
#include "module/ipc/table.h"

namespace tarvelo {

struct ipv4_flow {
  flow_key key;
  u32 l3;        ///< offset of the packet's IP header from the data
  u32 l4;        ///< offset of what follows it: the transport header, if there is one
  u32 end;       ///< offset of the first byte that was not looked at
  u8 tcp_flags;  ///< 0 for UDP, and without a transport header
  fragment_kind fragment;
  bool recorded;  ///< a first fragment that the cache knows already
  tunnel_header tunnel;

  [[nodiscard]] bool is_tcp() const { return key.proto == wire::ip_protocol::tcp; }
  [[nodiscard]] bool has_ports() const {
    return fragment == fragment_kind::none || fragment == fragment_kind::first;
  }
};

/// Reads the flow of an IPv4 frame; `fate::forward` when the fast path can serve packets like it. A
/// last fragment's record is gone afterwards, whatever becomes of the fragment. Softirq context.
fate read_flow(const sk_buff* skb, const frame& f, ipv4_flow* flow);

}  // namespace tarvelo
