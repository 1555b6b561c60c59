// SPDX-License-Identifier: GPL-2.0-only
//
// VLAN devices: an 802.1Q tag on another device. Known by IFF_802_1Q_VLAN in `priv_flags`.
#pragma once

#include "kernel/netdevice.h"

inline constexpr u16 VLAN_FLAG_REORDER_HDR = 0x1;

extern "C" {
/// A VLAN device on `real_dev`, which it holds; down and not registered, with the MAC address and
/// MTU of `real_dev`; null without memory. `flags` are VLAN_FLAG_ bits. Freed like any device.
[[nodiscard]] net_device* vlan_dev_alloc(const char* name, net_device* real_dev, u16 vlan_id,
                                         u16 flags) noexcept;

/// Only for devices that are VLAN devices.
[[nodiscard]] net_device* vlan_dev_real_dev(const net_device* dev) noexcept;
[[nodiscard]] u16 vlan_dev_vlan_id(const net_device* dev) noexcept;
[[nodiscard]] u16 vlan_dev_flags(const net_device* dev) noexcept;
}

[[nodiscard]] inline bool is_vlan_dev(const net_device* dev) noexcept {
  return (dev->priv_flags & IFF_802_1Q_VLAN) != 0;
}
