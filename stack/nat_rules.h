// SPDX-License-Identifier: GPL-2.0-only
//
// What the configuration says about new connections: which are translated and how, which belong to
// an application's helper, and which must stay on the slow path.
//
// Addresses are in network byte order. Built once; afterwards only a device that goes away changes
// it. Stack's lock.
#pragma once

#include <optional>
#include <vector>

#include "kernel/netdevice.h"
#include "stack/config.h"
#include "stack/conntrack.h"
#include "stack/nat_rewrite.h"

namespace tarvelo::stack {

class nat_rules {
 public:
  /// Throws setup_error when a rule names no device, or one without an IPv4 address.
  nat_rules(const router_config& config, const connection_tracker::device_lookup& devices);

  /// Where a connection is forwarded that came in on `dev`; none: it goes where it wants to.
  [[nodiscard]] std::optional<endpoint> forward_target(
      const net_device* dev, const nf_conntrack_tuple& tuple) const noexcept;
  /// The address behind which connections leave by `dev`; none: they keep their own.
  [[nodiscard]] std::optional<u32> masquerade_address(const net_device* dev) const noexcept;

  /// The helper's name, which lives as long as the rules; null: none.
  [[nodiscard]] const char* helper_of(const nf_conntrack_tuple& tuple) const noexcept;
  [[nodiscard]] bool stays_slow(const nf_conntrack_tuple& tuple) const noexcept;

  void forget_device(const net_device* dev);

 private:
  struct masquerade {
    const net_device* dev;
    u32 address;
  };
  struct forward {
    const net_device* dev;
    std::vector<u32> addresses;
    u8 protocol;
    u16 port;  ///< network order
    endpoint to;
  };

  std::vector<masquerade> masquerades_;
  std::vector<forward> forwards_;
  std::vector<helper_config> helpers_;
  std::vector<port_match> slow_;
};

}  // namespace tarvelo::stack
