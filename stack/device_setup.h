// SPDX-License-Identifier: GPL-2.0-only
//
// Building the devices of a configuration, kind by kind, and taking them away again. Process
// context, while no frame is under way; the router calls it, once for each device, those beneath
// first.
#pragma once

#include "kernel/netdevice.h"
#include "stack/config.h"

namespace tarvelo::stack {

/// Makes, registers and enters a device, down. Ports and raw-IP devices send by `port_ops`. Throws
/// setup_error; take_devices_away() then also clears up what is there of this one.
void set_up_device(const device_config& config, const net_device_ops* port_ops);

/// Takes all devices away. They are down, and nothing of the stack refers to them any more. Freed
/// after a grace period.
void take_devices_away();

}  // namespace tarvelo::stack
