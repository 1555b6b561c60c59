// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv6 addresses and routes that follow from a configuration. Every Ethernet device also has
// the link-local address of its MAC address, without which neighbours could not be asked. Process
// context, while the router is built; taking routes away again is the router's.
#pragma once

#include <string>

#include "stack/config.h"
#include "stack/device_table.h"

namespace tarvelo::stack {

/// Gives a device in the table its addresses, and enters their routes: each address itself, its
/// subnet, and the other end of a point-to-point device. Throws setup_error.
void set_up_ipv6(const device_config& config, net_device* dev);

/// A configured route of an IPv6 prefix, its gateway an IPv6 address too. Throws setup_error.
void add_configured_ipv6_route(const route_config& config, net_device* dev);

/// For messages: eight groups, none left out.
[[nodiscard]] std::string text_of(const wire::in6_addr& address);

}  // namespace tarvelo::stack
