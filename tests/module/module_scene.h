// SPDX-License-Identifier: GPL-2.0-only
//
// The scene of the module's tests: the module loaded, a router between an inside network on `lan`
// and an upstream on `wan`, routes and neighbours in place, and one connection that is translated
// at either end.
//
//   host 192.168.1.2 --- lan [router] wan --- gateway 203.0.113.1 --- peer 198.51.100.7
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "kernel/fast_path.h"
#include "kernel/module_loader.h"
#include "module/forward/fate.h"
#include "tests/support/connections.h"
#include "tests/support/fake_device.h"
#include "tests/support/frame_match.h"
#include "tests/support/kernel_fixture.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::test {

inline constexpr const char* lan_mac = "02:00:00:00:01:01";
inline constexpr const char* host_mac = "02:00:00:00:01:02";
inline constexpr const char* wan_mac = "02:00:00:00:09:02";
inline constexpr const char* gateway_mac = "02:00:00:00:09:01";

inline constexpr endpoint inside = {"192.168.1.2", 40000};
inline constexpr endpoint translated = {"203.0.113.9", 61000};
inline constexpr endpoint peer = {"198.51.100.7", 80};

/// Calls of the add operation after which a connection is forwarded.
inline constexpr int ripe = 20;

/// The module linked into the test, loaded as the command would load it.
[[nodiscard]] std::unique_ptr<loaded_module> load_module();

/// One report to the add operation.
struct report {
  bytes frame;
  nf_conn* ct;
  const nf_conntrack* carried;  ///< what the buffer carries, null for nothing
  unsigned hook;
  int info;
  net_device* dev;
  net_device* rx_dev;
  std::optional<nf_conntrack_tuple> tuple;
  u32 fast_flags = 0;
};

/// Makes the call. Returns the buffer's `fast_flags` afterwards.
u32 make_report(const report& r);

/// Offers a frame to the fast path. A frame that is handed back must be what it was, with nothing
/// held. `flags_before` is its `fast_flags`.
fate offer(const bytes& frame, net_device* dev, u32 headroom = receive_headroom);

class module_scene : public kernel_test {
 protected:
  module_scene();

  /// Source NAT: `inside` goes out as `translated`.
  [[nodiscard]] report source_nat(const tracked_connection& ct, u8 protocol, bool reply);
  /// Destination NAT: the peer, calling `translated`, gets `inside`.
  [[nodiscard]] report destination_nat(const tracked_connection& ct, u8 protocol, bool reply);

  /// Reports often enough that the fast path serves the direction.
  static void ripen(const report& r);

  [[nodiscard]] static nf_conntrack_tuple tuple(u8 protocol, endpoint from, endpoint to) {
    return make_tuple(protocol, from, to);
  }

  std::unique_ptr<loaded_module> module_ = load_module();
  fake_device lan{"lan0", lan_mac};
  fake_device wan{"wan0", wan_mac};
  scoped_route inside_route{"192.168.1.0", 24, "0.0.0.0", lan};
  scoped_route default_route{"0.0.0.0", 0, "203.0.113.1", wan};
  scoped_neighbour host{"192.168.1.2", lan, host_mac};
  scoped_neighbour gateway{"203.0.113.1", wan, gateway_mac};
};

/// A packet of `protocol` with its layers down to the transport header; TCP carries ACK.
[[nodiscard]] packet packet_of(u8 protocol, const char* to_mac, const char* from_mac, endpoint from,
                               endpoint to);

/// The whole text of a file below the module's directory.
[[nodiscard]] std::string control_text(const std::string& name);

}  // namespace tarvelo::test
