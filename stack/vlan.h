// SPDX-License-Identifier: GPL-2.0-only
//
// VLAN devices: the frames of one 802.1Q VLAN on the device beneath. On the way in the tag is taken
// off and the frame goes on at the VLAN device; on the way out the tag goes on, with the buffer's
// priority, and the frame is handed to the device beneath.
//
// A VLAN device counts a frame once, by its length without the tag, as the fast path does for the
// frames that it carries past. Its header is always the plain one, whether or not it is flagged to
// keep the tag in line: the flag only decides what the fast path is told of hosts behind it.
//
// Sending takes no lock, because the fast path does it, too. Softirq or process context.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"
#include "stack/config.h"

namespace tarvelo::stack {

/// An unregistered VLAN device that holds `real_dev`; null without memory. It is found by the
/// frames that come in once vlan_table_add() has entered it.
[[nodiscard]] net_device* make_vlan_device(const std::string& name, const vlan_link& link,
                                           net_device* real_dev);

/// Removes the tag in front of a tagged frame.
void remove_vlan_tag(sk_buff* skb) noexcept;

}  // namespace tarvelo::stack
