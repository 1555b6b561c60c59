// SPDX-License-Identifier: GPL-2.0-only
//
// What changes in a routed IPv4 packet: one address and port with their checksums. TTL and TOS are
// left alone: to both ends the fast path is not there. A later fragment has no port to change and
// no transport checksum.
//
// All of it runs after the last test, under the connection table's lock, and cannot fail.
#pragma once

#include "kernel/skbuff.h"
#include "module/forward/ipv4_flow.h"
#include "tarvelo/ipc_entry.h"

namespace tarvelo {

/// Applies the entry's translation; an entry that says both ends translates the source only.
void translate(sk_buff* skb, const ipv4_flow& flow, const ipc_entry& entry);

}  // namespace tarvelo
