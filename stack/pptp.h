// SPDX-License-Identifier: GPL-2.0-only
//
// PPTP data packets (RFC 2637): PPP frames in enhanced GRE. Received are all forms of PPP framing;
// sent is the one that the call is configured for. Acknowledgements ride on data packets; there is
// no window, and packets are taken in the order in which they come.
//
// All under the stack's lock. Buffers have `data` at the checked IPv4 header.
#pragma once

#include "kernel/pptp.h"
#include "kernel/skbuff.h"
#include "stack/ppp_session.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// The session of a GRE packet; null for one of none.
[[nodiscard]] const ppp_session* find_pptp_session(const sk_buff* skb) noexcept;

/// True for a GRE packet between the ends of this call.
[[nodiscard]] bool comes_from_pptp_peer(const sk_buff* skb, const pptp_params& params) noexcept;

/// Takes a GRE packet of a session: data, or an acknowledgement alone.
[[nodiscard]] receive_verdict input_pptp(sk_buff* skb, const ppp_session& session);

/// Takes an IP packet and sends it by a call, whose numbers move on.
[[nodiscard]] receive_verdict send_by_pptp(sk_buff* skb, pptp_params* params);

}  // namespace tarvelo::stack
