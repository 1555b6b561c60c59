// SPDX-License-Identifier: GPL-2.0-only
//
// Making IPv4 connection entries from what connection tracking reports.
//
// A report passes through: admission (may this packet become an entry?), the next hop (where do its
// frames go?) and the encapsulation of both sides. Then the entry is built without a lock, down to
// the device under PPP, VLAN device or bridge; and the test for a duplicate, the insertion and the
// connection's record share one hold of the table's lock: no packet meets an entry whose record
// does not fit it.
#pragma once

#include "kernel/nf_conntrack.h"
#include "tarvelo/handle.h"

namespace tarvelo {

/// Published operation, see vok_handle; softirq context. Refusals are silent: the next packet of
/// the connection tries again.
void _ip_conntrack_ipct_add(vok_handle* ci, sk_buff* skb, unsigned int hooknum, nf_conn* ct,
                            int ctinfo, const nf_conntrack_tuple* tuple);

}  // namespace tarvelo
