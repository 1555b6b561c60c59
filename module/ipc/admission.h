// SPDX-License-Identifier: GPL-2.0-only
//
// Which packets of which connections may become an IPv4 connection entry.
//
// Connection tracking reports every packet at its NAT hooks; most of those reports are of
// connections that must stay with the stack, or of directions that are in the table already. The
// tests run in a fixed order, because the marks that some of them leave on the packet and on the
// connection's record are meant to stay even when a later test refuses.
//
// A packet that is translated at its destination and again at its source needs two translations,
// which an entry cannot hold: such a connection is marked and stays off the fast path.
#pragma once

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"

namespace tarvelo {

/// One report, in the terms of the kernel's call.
struct add_report {
  sk_buff* skb;
  unsigned int hooknum;
  nf_conn* ct;
  int ctinfo;
  const nf_conntrack_tuple* tuple;  ///< the translation made at this hook, or null
};

/// What the tests have found out about a packet that they let pass.
struct admitted {
  const wire::iphdr* ip;
  u16 sport;  ///< network byte order
  u16 dport;
  vok_ct_ext* ext;
  ip_conntrack_dir direction;
  u32 marks;  ///< `ct_ext_flag` bits that say "this direction, at this hook"
};

/// True when the packet may be added; softirq context. Counts the call in the extension record.
[[nodiscard]] bool admit(const add_report& report, admitted* result);

}  // namespace tarvelo
