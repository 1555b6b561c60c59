// SPDX-License-Identifier: GPL-2.0-only
//
// The kinds of way that packets take through the router, to be measured one against the other:
// between one inside port and an outside that is Ethernet, a VLAN, a session or a tunnel, and
// between the ports of a bridge. Nothing is translated, so that what a row costs above plain
// routing is its wrapping.
#pragma once

#include <string>
#include <vector>

#include "bench/traffic.h"
#include "stack/config.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::bench {

struct lane {
  std::string name;
  /// Ports "lan0" and "wan0", and what stands on them.
  stack::router_config (*router)();
  /// Headers of what comes in on "lan0" and on "wan0", up to where the hosts' IP packet begins.
  test::packet (*from_inside)(const connection& c);
  test::packet (*from_outside)(const connection& c);
  bool ipv6 = false;
  /// Pieces that each datagram comes in; 1 for whole ones.
  u16 pieces = 1;
};

[[nodiscard]] const std::vector<lane>& lanes();

enum class direction : u8 {
  outwards,
  inwards
};

/// One datagram of the connection: a frame for each of its pieces.
[[nodiscard]] std::vector<test::bytes> datagram(const lane& l, const connection& c, direction way);

/// The same connection's opening: a whole datagram, whatever the lane carries later.
[[nodiscard]] test::bytes whole_datagram(const lane& l, const connection& c, direction way);

}  // namespace tarvelo::bench
