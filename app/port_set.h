// SPDX-License-Identifier: GPL-2.0-only
//
// The router's ports on interfaces of the host, one for each port and raw-IP device. They are
// opened before there is a router, so that a missing interface or privilege is found while nothing
// has been done yet, and outlive it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app/config.h"
#include "ports/packet_socket.h"
#include "stack/router.h"

namespace tarvelo::app {

class port_set {
 public:
  /// Opens all interfaces. Throws input_error with the device's place.
  explicit port_set(const app_config& config);

  /// Connects the ports with their devices, and tells the router of links that are down.
  void attach(stack::router& router);
  /// Tells the router of links that have come up or gone down since the last call. Process context.
  void follow_links(stack::router& router);
  /// Sends what the calling processor has collected.
  void flush() noexcept;
  /// Frames received so far.
  [[nodiscard]] u64 received() const noexcept;
  [[nodiscard]] u64 transmit_errors() const noexcept;
  [[nodiscard]] std::size_t size() const noexcept { return ports_.size(); }
  /// Each n-th port of `ways`, from the first: a worker's share.
  [[nodiscard]] std::vector<ports::port*> share(std::size_t first, std::size_t ways) const;

 private:
  struct member {
    std::string device;
    std::unique_ptr<ports::packet_socket> port;
    bool link_up = true;
  };

  std::vector<member> ports_;
};

}  // namespace tarvelo::app
