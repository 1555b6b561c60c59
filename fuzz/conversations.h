// SPDX-License-Identifier: GPL-2.0-only
//
// The connections that are live in the fuzzed router (fuzz/router.toml), one through each kind of
// device: what the targets mutate, and what events happen to.
#pragma once

#include <string>
#include <vector>

#include "tests/support/packet_builder.h"

namespace tarvelo::fuzz {

struct sent_frame {
  std::string port;  ///< where it comes in
  test::bytes bytes;
};

struct conversation {
  const char* name;
  std::vector<sent_frame> opening;  ///< what must come first, if anything
  sent_frame there;
  sent_frame back;  ///< what the other side sends, as it reaches the router
};

/// A fragmented datagram of the first conversation over UDP, in order.
[[nodiscard]] std::vector<sent_frame> fragments();

[[nodiscard]] const std::vector<conversation>& conversations();

}  // namespace tarvelo::fuzz
