// SPDX-License-Identifier: GPL-2.0-only
//
// What the host knows of one of its interfaces. Needs no privilege. Any thread.
#pragma once

#include <optional>
#include <string>

#include "kernel/types.h"

namespace tarvelo::ports {

struct host_interface {
  int index;
  u32 mtu;       ///< bytes above the link-layer header
  u16 type;      ///< ARPHRD_ value
  bool link_up;  ///< set up, and its carrier is there
};

/// Nothing when there is no such interface.
[[nodiscard]] std::optional<host_interface> query_interface(const std::string& name) noexcept;

}  // namespace tarvelo::ports
