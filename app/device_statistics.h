// SPDX-License-Identifier: GPL-2.0-only
//
// What has gone through the devices that stand on others: VLAN devices and PPP interfaces. The fast
// path and the stack both count there, each packet once, whichever way it went; no port of the host
// knows these numbers.
//
// Process context. The numbers may move while they are read.
#pragma once

#include <string>

#include "stack/config.h"
#include "stack/router.h"

namespace tarvelo::app {

/// A line, ended by a newline, for each such device in the order of the configuration; empty when
/// there is none.
[[nodiscard]] std::string device_statistics_text(const stack::router_config& config,
                                                 const stack::router& router);

}  // namespace tarvelo::app
