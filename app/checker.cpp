// SPDX-License-Identifier: GPL-2.0-only
#include "app/checker.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "app/address_text.h"

namespace tarvelo::app {

const stack::device_config* checker::device(std::string_view name) const {
  const auto found = std::find_if(devices().begin(), devices().end(),
                                  [&](const auto& device) { return device.name == name; });
  return found == devices().end() ? nullptr : &*found;
}

const stack::device_config& checker::require_device(const item_places& at, std::string_view title,
                                                    std::string_view key, const std::string& name,
                                                    std::size_t index) const {
  const stack::device_config* found = device(name);
  if (found == nullptr) {
    fail(at, title, key, fmt::format("no device \"{}\"", name), "name a [[device]] of this file",
         index);
  }
  return *found;
}

void checker::require_host(const item_places& at, std::string_view title, std::string_view key,
                           const address_bits& address, const std::string& cure) const {
  const std::string text = to_text(address.to_address());
  if (const char* why = why_not_a_host(address)) {
    fail(at, title, key, fmt::format("{} is {}", text, why), cure);
  }
  for (const stack::device_config& device : devices()) {
    for (const stack::ip_prefix& own : device.addresses) {
      const address_bits network(own);
      if (!network.contains(address)) continue;
      if (!address.with_length(network.length()).is_end_of_network()) continue;
      fail(at, title, key,
           fmt::format("{} is the first or last address of the network of \"{}\"", text,
                       device.name),
           cure);
    }
  }
}

void checker::fail(const item_places& at, std::string_view title, std::string_view key,
                   const std::string& wrong, const std::string& cure, std::size_t index) const {
  throw input_error(fmt::format("{}{} ({}.{}); {}", describe(config_.file, at.of(key, index)),
                                wrong, title, key, cure));
}

std::vector<address_bits> checker::connected(const stack::device_config& device) {
  std::vector<address_bits> networks;
  for (const stack::ip_prefix& address : device.addresses)
    networks.emplace_back(address);
  if (device.peer) networks.emplace_back(*device.peer);
  return networks;
}

const stack::device_config* checker::owner(const address_bits& address) const {
  for (const stack::device_config& device : devices()) {
    for (const stack::ip_prefix& own : device.addresses) {
      if (address_bits(own).same_address(address)) return &device;
    }
  }
  return nullptr;
}

const stack::device_config* checker::way_to(const address_bits& address) const {
  const stack::device_config* best = nullptr;
  u32 best_length = 0;
  const auto consider = [&](const address_bits& prefix, const stack::device_config* by) {
    if (by == nullptr || !prefix.contains(address)) return;
    if (best != nullptr && prefix.length() <= best_length) return;
    best = by;
    best_length = prefix.length();
  };
  for (const stack::device_config& device : devices()) {
    for (const address_bits& network : connected(device))
      consider(network, &device);
  }
  for (const stack::route_config& route : config_.router.routes) {
    consider(address_bits(route.to), device(route.device));
  }
  return best;
}

bool has_link_layer(const stack::device_config& device) {
  return std::holds_alternative<stack::port_link>(device.link) ||
         std::holds_alternative<stack::vlan_link>(device.link) ||
         std::holds_alternative<stack::bridge_link>(device.link);
}

bool has_ipv4(const stack::device_config& device) {
  return std::any_of(device.addresses.begin(), device.addresses.end(), [](const auto& address) {
    return std::holds_alternative<stack::ipv4_prefix>(address);
  });
}

void check_config(const app_config& config) {
  const checker c(config);
  check_devices(c);
  check_stacking(c);
  check_sessions(c);
  check_addresses(c);
  check_routes(c);
  check_tunnel_ends(c);
  check_neighbours(c);
  check_nat(c);
  check_matches(c);
}

app_config load_config(const std::string& file) {
  app_config config = read_config(file);
  check_config(config);
  return config;
}

text_place place_named_in(const app_config& config, const std::string& text) {
  const auto part_of_name = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || c == '-';
  };
  const auto stands_alone = [&](std::size_t at, std::size_t length) {
    const bool starts = at == 0 || !part_of_name(text[at - 1]);
    const bool ends = at + length == text.size() || !part_of_name(text[at + length]);
    return starts && ends;
  };
  for (std::size_t i = 0; i < config.router.devices.size(); ++i) {
    const std::string& name = config.router.devices[i].name;
    for (auto at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
      if (stands_alone(at, name.size())) return config.places.devices[i].item;
    }
  }
  return {};
}

}  // namespace tarvelo::app
