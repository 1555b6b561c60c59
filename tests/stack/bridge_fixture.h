// SPDX-License-Identifier: GPL-2.0-only
//
// A router with a bridge of plain ports and VLAN devices on the inside and a VLAN uplink:
//
//   br0 192.168.1.1/24 --- lan0, lan1       untagged
//                      --- lan2.20, lan2.21 VLANs on lan2
//                      --- lan3.30          a VLAN that keeps its tags in line
//   wan0.7 203.0.113.9/24 --- gateway 203.0.113.1; the default route
//
// Hosts on the inside have the address 192.168.1.N and the MAC that host_mac_of(N) gives.
#pragma once

#include "kernel/module_loader.h"
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {

inline constexpr const char* bridge_mac = "02:00:00:00:03:01";

/// Where a host is: a port, and the VLAN that its frames are in there (0: none).
struct place {
  const char* port;
  u16 vid = 0;
};

[[nodiscard]] std::string host_mac_of(u8 number);
[[nodiscard]] std::string host_address(u8 number);

/// An Ethernet header, and the tag of a place.
[[nodiscard]] packet link_header(const place& at, std::string_view to, std::string_view from,
                                 u8 priority = 0);

class bridge_test : public router_test {
 protected:
  bridge_test();

  /// A frame from host `number` to everyone, from whatever place it is at: what the bridge learns
  /// from. All that is sent on its account is forgotten.
  void announce(u8 number, const place& at);
  /// A datagram between two inside hosts, as it is on the wire at `at`.
  [[nodiscard]] static packet between(u8 to, u8 from, const place& at, u8 priority = 0);
  /// The names of the ports on which anything was sent since the last call, in their order.
  [[nodiscard]] static std::vector<std::string> ports_sent_on();
  stack::receive_verdict receive_at(const place& at, const packet& frame) {
    return receive(at.port, frame);
  }

  void load_module();
  /// Unloaded before the router goes.
  std::unique_ptr<loaded_module> module;
};

}  // namespace tarvelo::test
