// SPDX-License-Identifier: GPL-2.0-only
//
// The IEEE 802.1Q priority that a VLAN tag shows when the stack puts it on: the same that the fast
// path would have written.
//
// A frame whose wrapping stays as it is shows the priority of its contents: the precedence of the
// IP packet in an untagged frame or in a PPPoE session frame, the tag's own in any other. One that
// comes out of a session or tunnel or goes into one shows the priority that it arrived with. A
// frame that only changes its session, or that goes into a tunnel over a session, counts as one
// whose wrapping stays: for the fast path its session is the output device's affair. What a link
// without headers delivers shows 0.
//
// All of that is kept in `sk_buff::priority`, the priority to show in its lowest byte.
#pragma once

#include "kernel/ppp_channel.h"
#include "kernel/skbuff.h"

namespace tarvelo::stack {

/// Of a frame as a port delivers it: with its Ethernet header.
void note_frame_priority(sk_buff* skb) noexcept;

/// Of a frame that the fast path sends by a device of the stack's, with the priority that it has
/// decided on.
void keep_priority(sk_buff* skb) noexcept;

/// The packet has come out of a session or tunnel.
void note_unwrapped(sk_buff* skb, ppp_channel_type from) noexcept;

/// The packet goes into a session or tunnel.
void note_wrapped(sk_buff* skb, ppp_channel_type into) noexcept;

/// 0 to 7.
[[nodiscard]] u8 shown_priority(const sk_buff* skb) noexcept;

}  // namespace tarvelo::stack
