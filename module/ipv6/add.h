// SPDX-License-Identifier: GPL-2.0-only
//
// Making IPv6 connection entries from the packets that are being forwarded: the twin of the IPv4
// add for a family without translation. Of the PPP encapsulations an entry knows PPPoE only.
//
// Nothing marks a direction as added: every packet that may become an entry is made one, which goes
// again when its key is known. The test for that, the insertion and the writes to the connection's
// record share one hold of the table's lock.
#pragma once

#include "kernel/skbuff.h"
#include "tarvelo/handle.h"

namespace tarvelo {

/// Published operation, see vok_handle; softirq context. Refusals are silent: the next packet of
/// the connection tries again.
void __ipv6_conntrack_ipc_add(vok_handle* ci, sk_buff* skb);

}  // namespace tarvelo
