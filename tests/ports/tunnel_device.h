// SPDX-License-Identifier: GPL-2.0-only
//
// A point-to-point interface of the host without link layer, whose other end is a file.
#pragma once

#include <string_view>

#include "ports/owned_fd.h"

namespace tarvelo::ports {

/// Makes the interface, which lives as long as the file: reading gives the packets sent on it,
/// writing makes it receive. Does not block. Nothing where tunnels cannot be made.
[[nodiscard]] owned_fd open_tunnel_device(std::string_view name);

}  // namespace tarvelo::ports
