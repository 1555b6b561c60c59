// SPDX-License-Identifier: GPL-2.0-only
//
// Putting 802.1Q tags in and taking them out, at the start of a frame. The MAC addresses move with
// the start of the frame; the type behind the tag stays where it is.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/ethernet.h"
#include "tarvelo/handle.h"

namespace tarvelo {

[[nodiscard]] constexpr u16 tag_control(u16 vid, u32 priority) {
  return static_cast<u16>(vid | priority << wire::vlan_priority_shift);
}

/// Inserts a tag; the frame has an Ethernet header and 4 bytes of headroom.
void insert_tag(sk_buff* skb, u16 tci);

/// Removes the tag of a tagged frame.
void remove_tag(sk_buff* skb);

/// Remembers in `fast_flags` which VLAN slot of the connection the frame leaves by.
void choose_vlan_slot(sk_buff* skb, u8 direction);

/// Published operation, see vok_handle. Tags the frame for the chosen slot of the connection's
/// record and sends it to the slot's device. Does nothing without a record, a device in the slot,
/// an Ethernet header or headroom: the frame then leaves through the device it has.
void _vok_add_vlan_tag(vok_handle* ci, sk_buff* skb, nf_conn* ct);

}  // namespace tarvelo
