// SPDX-License-Identifier: GPL-2.0-only
//
// The outer IPv4 header of a tunnel. It is never fragmented on the way: what is too long for the
// tunnel is handed back before.
#pragma once

#include "kernel/skbuff.h"

namespace tarvelo {

struct outer_ipv4 {
  u32 saddr;  ///< network byte order
  u32 daddr;  ///< network byte order
  u8 protocol;
  u8 tos;
  u8 ttl;
};

/// Writes the header `at` bytes into the data, in front of everything that it carries.
void build_outer_ipv4(sk_buff* skb, u32 at, const outer_ipv4& outer);

}  // namespace tarvelo
