// SPDX-License-Identifier: GPL-2.0-only
//
// What the checks of a whole configuration share: devices by name, what is connected to each, and
// the way to point at a fault. Each check_...() looks at one side and throws input_error at the
// first fault; they run in the order in which they stand here, each relying on those before it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/config.h"
#include "app/prefix_math.h"

namespace tarvelo::app {

class checker {
 public:
  explicit checker(const app_config& config) : config_(config) {}

  [[nodiscard]] const app_config& config() const { return config_; }
  [[nodiscard]] const std::vector<stack::device_config>& devices() const {
    return config_.router.devices;
  }
  /// Null when there is none.
  [[nodiscard]] const stack::device_config* device(std::string_view name) const;
  /// The device, or the fault that `key` of an item names none.
  const stack::device_config& require_device(const item_places& at, std::string_view title,
                                             std::string_view key, const std::string& name,
                                             std::size_t index = 0) const;

  /// The fault that an address of an item can be no single host's: by its class, or because it is
  /// an end of a network that the router is in.
  void require_host(const item_places& at, std::string_view title, std::string_view key,
                    const address_bits& address, const std::string& cure) const;

  /// Throws: "FILE:LINE:COLUMN: wrong (title.key); cure".
  [[noreturn]] void fail(const item_places& at, std::string_view title, std::string_view key,
                         const std::string& wrong, const std::string& cure,
                         std::size_t index = 0) const;

  /// The networks that a device reaches without a route: those of its addresses, and its peer.
  [[nodiscard]] static std::vector<address_bits> connected(const stack::device_config& device);
  /// The device that owns the address, or null.
  [[nodiscard]] const stack::device_config* owner(const address_bits& address) const;
  /// The device that packets to `address` leave by, the longest prefix deciding; null without one.
  [[nodiscard]] const stack::device_config* way_to(const address_bits& address) const;

 private:
  const app_config& config_;
};

[[nodiscard]] bool has_link_layer(const stack::device_config& device);
[[nodiscard]] bool has_ipv4(const stack::device_config& device);

void check_devices(const checker& c);
void check_stacking(const checker& c);
void check_sessions(const checker& c);
void check_addresses(const checker& c);
void check_routes(const checker& c);
void check_tunnel_ends(const checker& c);
void check_neighbours(const checker& c);
void check_nat(const checker& c);
void check_matches(const checker& c);

}  // namespace tarvelo::app
