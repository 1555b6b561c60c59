// SPDX-License-Identifier: GPL-2.0-only
//
// Which packets may become an IPv6 connection entry. The tests run in a fixed order, because the
// marks that some of them leave on the packet and on the connection's record are meant to stay even
// when a later test refuses.
#pragma once

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"

namespace tarvelo {

/// What the tests have found out about a packet that they let pass.
struct admitted_v6 {
  const wire::ipv6hdr* ip;
  nf_conn* ct;  ///< has an extension record
  u16 sport;    ///< network byte order
  u16 dport;
  u8 proto;
  ip_conntrack_dir direction;
};

/// True when the packet, which carries its connection and route, may be added; softirq context.
/// Counts the call in the extension record.
[[nodiscard]] bool admit_v6(sk_buff* skb, admitted_v6* result);

}  // namespace tarvelo
