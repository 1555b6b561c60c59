// SPDX-License-Identifier: GPL-2.0-only
//
// The PPTP headers that the fast path puts on: outer IPv4, GRE (RFC 2637), PPP. The sequence
// numbers are shared with the stack's own PPTP code and taken one by one, without a lock.
#pragma once

#include "kernel/pptp.h"
#include "kernel/skbuff.h"

namespace tarvelo {

/// True when something received has not been acknowledged yet.
[[nodiscard]] inline bool pptp_has_ack(const pptp_params* call) {
  return read_once(call->seq_recv) != read_once(call->ack_sent);
}

/// Bytes of all headers, with or without an acknowledgement number.
[[nodiscard]] u32 pptp_stack_length(const pptp_params* call, bool acknowledges);

/// Writes the headers `at` bytes into the data, in front of an IPv4 packet.
void build_pptp(sk_buff* skb, u32 at, pptp_params* call, bool acknowledges);

}  // namespace tarvelo
