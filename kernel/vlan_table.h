// SPDX-License-Identifier: GPL-2.0-only
//
// Finds the VLAN device that a tagged frame arrives on: a table from (device under the tag, VLAN
// id) to VLAN device. Entries are added and removed in process context; look-ups run inside an RCU
// read side on any processor. The table takes no reference: a VLAN device is removed before it is
// unregistered, whose grace period then covers the look-ups that have found it.
//
// Frames on a VLAN device are counted with dev_count_rx() and dev_count_tx() like on any other.
#pragma once

#include "kernel/if_vlan.h"
#include "kernel/wire/ethernet.h"

/// The most entries in all: every id on one device.
inline constexpr u32 vlan_table_limit = wire::vlan_vid_mask + 1;

extern "C" {
/// Makes a VLAN device findable. 0, -EEXIST when its device has one with that id, -EINVAL for an id
/// that is none, -ENOSPC when the table is full, or -ENOMEM.
[[nodiscard]] int vlan_table_add(net_device* vlan_dev) noexcept;
/// Nothing happens when the device is not in the table.
void vlan_table_remove(net_device* vlan_dev) noexcept;
/// The VLAN device with `vid` (host order, 12 bits) on `real_dev`, or null.
[[nodiscard]] net_device* vlan_find_dev(const net_device* real_dev, u16 vid) noexcept;
}
