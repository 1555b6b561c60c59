// SPDX-License-Identifier: GPL-2.0-only
#include "app/port_set.h"

#include <fmt/format.h>

namespace tarvelo::app {

namespace {

struct host_side {
  std::string interface;
  ports::link_layer link;
};

std::optional<host_side> host_side_of(const stack::device_config& device) {
  if (const auto* port = std::get_if<stack::port_link>(&device.link)) {
    return host_side{port->interface, ports::link_layer::ethernet};
  }
  if (const auto* raw = std::get_if<stack::rawip_link>(&device.link)) {
    return host_side{raw->interface, ports::link_layer::raw_ip};
  }
  return std::nullopt;
}

}  // namespace

port_set::port_set(const app_config& config) {
  for (std::size_t i = 0; i < config.router.devices.size(); ++i) {
    const stack::device_config& device = config.router.devices[i];
    const auto side = host_side_of(device);
    if (!side) continue;
    try {
      ports_.push_back({device.name, std::make_unique<ports::packet_socket>(
                                         side->interface, side->link, device.mtu)});
    } catch (const ports::port_error& error) {
      throw input_error(describe(config.file, config.places.devices[i].of("interface")) +
                        error.what());
    }
  }
  if (ports_.empty()) {
    throw input_error(fmt::format(
        "{}: no device of type port or rawip (device); a router needs one", config.file));
  }
}

void port_set::attach(stack::router& router) {
  for (const member& m : ports_)
    m.port->attach(router.device(m.device));
  follow_links(router);
}

void port_set::follow_links(stack::router& router) {
  for (member& m : ports_) {
    const auto now = ports::query_interface(m.port->interface());
    const bool up = now && now->link_up;
    if (up == m.link_up) continue;
    m.link_up = up;
    router.set_link(m.port->device(), up);
  }
  flush();
}

void port_set::flush() noexcept {
  for (const member& m : ports_)
    m.port->flush();
}

u64 port_set::received() const noexcept {
  u64 total = 0;
  for (const member& m : ports_)
    total += m.port->statistics().received;
  return total;
}

u64 port_set::transmit_errors() const noexcept {
  u64 total = 0;
  for (const member& m : ports_)
    total += m.port->statistics().transmit_errors;
  return total;
}

std::vector<ports::port*> port_set::share(std::size_t first, std::size_t ways) const {
  std::vector<ports::port*> result;
  for (std::size_t i = first; i < ports_.size(); i += ways)
    result.push_back(ports_[i].port.get());
  return result;
}

}  // namespace tarvelo::app
