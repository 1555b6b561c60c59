// SPDX-License-Identifier: GPL-2.0-only
//
// Recognising IP packets inside L2TP over UDP. Such a packet belongs to the connection inside, not
// to the UDP flow that carries it, so it must not be forwarded as plain UDP.
#pragma once

#include "kernel/skbuff.h"

namespace tarvelo {

/// True when the UDP payload at that offset is an L2TP data message (RFC 2661) that carries IPv4 in
/// PPP. Ports are not looked at: both ends may use any.
[[nodiscard]] bool carries_l2tp(const sk_buff* skb, u32 payload);

}  // namespace tarvelo
