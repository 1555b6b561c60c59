// SPDX-License-Identifier: GPL-2.0-only
//
// The routes and configured neighbours that follow from a configuration. Process context, while the
// router is built; taking them away again is the router's.
#pragma once

#include "stack/config.h"
#include "stack/device_table.h"

namespace tarvelo::stack {

/// The IPv4 addresses of a device; those of other families are left out.
[[nodiscard]] std::vector<ipv4_prefix> ipv4_addresses(const device_config& config);

/// The routes of a device's own addresses: each address itself, its subnet and the subnet's
/// broadcast addresses, and the other end of a point-to-point device. Throws setup_error.
void add_device_routes(const device_config& config, net_device* dev);

/// A configured route. Throws setup_error.
void add_configured_route(const route_config& config, net_device* dev);

/// A configured neighbour. Throws setup_error. Under the stack's lock.
void add_configured_neighbour(const neighbour_config& config, net_device* dev);

}  // namespace tarvelo::stack
