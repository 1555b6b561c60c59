// SPDX-License-Identifier: GPL-2.0-only
//
// PPPoE sessions (RFC 2516): packets in session frames over an Ethernet or VLAN device. Discovery
// and the negotiation inside a session are not done here: frames of neither are taken.
#pragma once

#include "kernel/ppp_channel.h"
#include "kernel/skbuff.h"
#include "stack/router.h"

namespace tarvelo::stack {

enum class session_frame : u8 {
  none,
  known,
  unknown,
};

/// Tells a session frame, tagged or not, and whether it comes from the other end of a session on
/// `dev`: the layer-3 device that a frame with this tag belongs to. `data` at the Ethernet header.
/// No lock.
[[nodiscard]] session_frame session_frame_of(const sk_buff* skb, const net_device* dev) noexcept;

/// Takes a session frame: `data` at the PPPoE header, `mac_header` at the Ethernet header, `dev`
/// the Ethernet or VLAN device it is for. Bytes behind the frame (padding) are cut off. Stack's
/// lock.
[[nodiscard]] receive_verdict input_pppoe(sk_buff* skb);

/// Takes an IP packet and sends it in a session frame. Any lock.
[[nodiscard]] receive_verdict send_by_pppoe(sk_buff* skb, const pppoe_params& params) noexcept;

}  // namespace tarvelo::stack
