// SPDX-License-Identifier: GPL-2.0-only
//
// Which packets of which connections may become a connection entry: what both families ask of them,
// and all that IPv4 asks.
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

/// What does not depend on the family. All in softirq context.
///@{
/// Counts a call in the connection's extension record.
void count_add_call(vok_ct_ext* ext);
/// Leaves a mark on packets of the original direction.
void note_direction(sk_buff* skb, int ctinfo);
/// True when packet or connection is marked to stay with the stack, or a helper owns it, or where
/// the packet came in is not known.
[[nodiscard]] bool kept_off_fast_path(const sk_buff* skb, const nf_conn* ct);
/// Related packets have no entry of their own, and a reply that opens a connection does not exist.
[[nodiscard]] bool serves_state(int ctinfo);
/// Of a packet whose state is served.
[[nodiscard]] ip_conntrack_dir direction_of(int ctinfo);
/// From the first FIN on, tracking needs to see every segment of a TCP connection.
[[nodiscard]] bool tcp_is_ending(const nf_conn* ct);
///@}

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
