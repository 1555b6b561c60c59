// SPDX-License-Identifier: GPL-2.0-only
//
// The order in which devices can be built: each after those that it is stacked on.
#pragma once

#include <vector>

#include "stack/config.h"

namespace tarvelo::stack {

/// The devices of a configuration, which keep their order where it does not matter. The result
/// points into `devices`. Throws setup_error when a device is stacked on one that does not exist
/// or, in the end, on itself.
[[nodiscard]] std::vector<const device_config*> build_order(
    const std::vector<device_config>& devices);

}  // namespace tarvelo::stack
