// SPDX-License-Identifier: GPL-2.0-only
//
// A router between two Ethernet segments and a point-to-point link, with a driver that records what
// leaves:
//
//   host 192.168.1.2 --- lan0 192.168.1.1/24   wan0 203.0.113.9/24 --- gateway 203.0.113.1
//                        tun0 10.10.0.1, peer 10.10.0.2
//
// The gateway and the host are configured neighbours; the default route goes to the gateway. Tests
// change `config` before start().
#pragma once

#include <memory>
#include <string>

#include "stack/router.h"
#include "tests/support/fake_device.h"
#include "tests/support/frame_match.h"
#include "tests/support/kernel_fixture.h"
#include "tests/support/packet_builder.h"
#include "tests/support/packet_decoder.h"

namespace tarvelo::test {

inline constexpr const char* lan_mac = "02:00:00:00:01:01";
inline constexpr const char* host_mac = "02:00:00:00:01:02";
inline constexpr const char* wan_mac = "02:00:00:00:02:01";
inline constexpr const char* gateway_mac = "02:00:00:00:02:02";
inline constexpr const char* everyone_mac = "FF:FF:FF:FF:FF:FF";

inline constexpr const char* host = "192.168.1.2";
inline constexpr const char* lan_address = "192.168.1.1";
inline constexpr const char* wan_address = "203.0.113.9";
inline constexpr const char* gateway = "203.0.113.1";
inline constexpr const char* server = "198.51.100.7";
inline constexpr const char* tunnel_address = "10.10.0.1";
inline constexpr const char* tunnel_peer = "10.10.0.2";

[[nodiscard]] stack::router_config three_device_config();
[[nodiscard]] stack::ipv4_prefix prefix_of(std::string_view address, u8 length);
[[nodiscard]] stack::mac_address config_mac(std::string_view text);

/// A driver that records frames by device name and frees them.
[[nodiscard]] const net_device_ops* recording_ops();
/// What was sent on a device since the last call.
[[nodiscard]] std::vector<bytes> sent_on(const std::string& device);

class router_test : public kernel_test {
 protected:
  router_test();

  void start();
  [[nodiscard]] net_device* device(const char* name) const { return router->device(name); }
  stack::receive_verdict receive(const char* device, const bytes& frame);
  stack::receive_verdict receive(const char* device, const packet& frame) {
    return receive(device, frame.build());
  }
  /// The only frame sent on a device since the last call; a failure and an empty frame when there
  /// is none or more than one.
  [[nodiscard]] bytes only_frame_on(const char* device);

  /// A frame of the host to the router's LAN side, or of the gateway to its WAN side, up to the IP
  /// header.
  [[nodiscard]] static packet from_host(std::string_view to = server);
  [[nodiscard]] static packet from_gateway(std::string_view source, std::string_view to);

  stack::router_config config = three_device_config();
  std::unique_ptr<stack::router> router;
};

}  // namespace tarvelo::test
