// SPDX-License-Identifier: GPL-2.0-only
//
// L2TP data messages (RFC 2661) in UDP datagrams. Received are messages with and without length and
// sequence fields; messages with an offset or a priority, and control messages, are not taken. Sent
// are messages without length field, with sequence numbers if the session wants them, and without
// UDP checksum. Packets are taken in the order in which they come.
//
// All under the stack's lock. Buffers have `data` at the checked IPv4 header.
#pragma once

#include "kernel/l2tp.h"
#include "kernel/skbuff.h"
#include "stack/ppp_session.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// The session of a UDP datagram; null for one of none.
[[nodiscard]] const ppp_session* find_l2tp_session(const sk_buff* skb) noexcept;

/// True for a UDP datagram between the ends of this session's tunnel.
[[nodiscard]] bool comes_from_l2tp_peer(const sk_buff* skb, const l2tp_params& params) noexcept;

/// Takes a datagram of a session.
[[nodiscard]] receive_verdict input_l2tp(sk_buff* skb, const ppp_session& session);

/// Takes an IP packet and sends it by a session.
[[nodiscard]] receive_verdict send_by_l2tp(sk_buff* skb, const l2tp_params& params);

}  // namespace tarvelo::stack
