// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv4 side of a frame, parsed once: which flow the packet belongs to and where its transport
// header is. Everything is checked against the linear length before it is read, and against the
// length that the header claims.
#pragma once

#include "kernel/wire/ip.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"
#include "module/ipc/table.h"

namespace tarvelo {

struct ipv4_flow {
  flow_key key;
  u32 l4;        ///< offset of the transport header from the data
  u32 end;       ///< offset of the first byte that was not looked at
  u8 tcp_flags;  ///< 0 for UDP

  [[nodiscard]] bool is_tcp() const { return key.proto == wire::ip_protocol::tcp; }
};

/// Reads the flow of an IPv4 frame; `fate::forward` when the fast path can serve packets like it.
fate read_flow(const sk_buff* skb, const frame& f, ipv4_flow* flow);

}  // namespace tarvelo
