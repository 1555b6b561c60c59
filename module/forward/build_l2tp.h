// SPDX-License-Identifier: GPL-2.0-only
//
// L2TP over UDP (RFC 2661) on the packet path: the session's checks, what is noted of a received
// header, and the headers that are put on (outer IPv4, UDP, L2TP, PPP).
//
// The session belongs to the stack. It is held from the checks on, by a reference taken only from a
// count that is not 0, and let go when the table's lock is free again: the last reference to go
// ends in the stack.
#pragma once

#include "kernel/l2tp.h"
#include "kernel/skbuff.h"
#include "module/forward/fate.h"
#include "module/forward/passage.h"
#include "module/forward/tunnel.h"

namespace tarvelo {

/// Bytes of all headers that build_l2tp() writes.
[[nodiscard]] u32 l2tp_stack_length(const l2tp_session* session);

/// For an entry with an L2TP side: its session is there, sound and not ending, and a received
/// header carries its ids. `*held` is the reference, null without one; it is the caller's whatever
/// the result. A session that no header can be built for is logged.
fate hold_l2tp_session(const sk_buff* skb, const tunnel_header& tunnel, const passage& way,
                       l2tp_session** held);

/// Counts a received data message that has a sequence number; its header is at `header`.
void note_l2tp_input(const sk_buff* skb, u32 header, l2tp_session* session);

/// Writes the headers `at` bytes into the data, in front of an IPv4 packet.
void build_l2tp(sk_buff* skb, u32 at, const l2tp_params* params);

}  // namespace tarvelo
