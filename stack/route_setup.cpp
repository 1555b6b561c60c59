// SPDX-License-Identifier: GPL-2.0-only
#include "stack/route_setup.h"

#include <cstring>
#include <string>

#include "kernel/errno.h"
#include "kernel/route.h"
#include "stack/ipv6_setup.h"
#include "stack/neighbour_cache.h"
#include "stack/router.h"

namespace tarvelo::stack {

namespace {

constexpr u8 host_length = 32;
/// Longer prefixes have no broadcast address (RFC 3021).
constexpr u8 longest_subnet_with_broadcast = 30;

std::string text_of(u32 address) {
  u8 octet[sizeof address];
  std::memcpy(octet, &address, sizeof address);
  return std::to_string(octet[0]) + '.' + std::to_string(octet[1]) + '.' +
         std::to_string(octet[2]) + '.' + std::to_string(octet[3]);
}

[[noreturn]] void refuse(const std::string& device, const std::string& why) {
  throw setup_error("device \"" + device + "\": " + why);
}

struct wanted_route {
  ipv4_prefix prefix;
  rt_class type;
  u32 gateway;
};

void add_route(const std::string& device, net_device* dev, const wanted_route& route) {
  const ipv4_prefix& to = route.prefix;
  const int error = ip_route_add(to.address, to.length, route.type, route.gateway, dev);
  if (error == 0) return;
  const std::string name = text_of(to.address) + '/' + std::to_string(to.length);
  if (error == -EEXIST) refuse(device, "there is another route to " + name);
  if (error == -EINVAL) refuse(device, "route to " + name + " has bits below its prefix");
  refuse(device, "no memory for the route to " + name);
}

bool is_configured(const std::vector<ipv4_prefix>& addresses, u32 address) noexcept {
  for (const ipv4_prefix& own : addresses) {
    if (own.address == address) return true;
  }
  return false;
}

/// A subnet is entered once, however many of the device's addresses lie in it.
bool is_first_in_subnet(const std::vector<ipv4_prefix>& addresses, std::size_t index) noexcept {
  for (std::size_t i = 0; i < index; ++i) {
    if (addresses[i].length == addresses[index].length &&
        in_prefix(addresses[i].address, addresses[index])) {
      return false;
    }
  }
  return true;
}

void add_subnet(const device_config& config, net_device* dev, const ipv4_prefix& own,
                const std::vector<ipv4_prefix>& addresses) {
  const u32 mask = ipv4_mask(own.length);
  const u32 network = own.address & mask;
  add_route(config.name, dev, {{network, own.length}, RTN_UNICAST, 0});
  if (own.length > longest_subnet_with_broadcast || own.length == 0) return;
  // The all-zeroes address is the broadcast address of old (RFC 1812, 4.2.2.11).
  for (const u32 broadcast : {network, network | ~mask}) {
    if (is_configured(addresses, broadcast)) continue;
    add_route(config.name, dev, {{broadcast, host_length}, RTN_BROADCAST, 0});
  }
}

}  // namespace

std::vector<ipv4_prefix> ipv4_addresses(const device_config& config) {
  std::vector<ipv4_prefix> addresses;
  for (const ip_prefix& own : config.addresses) {
    if (const auto* v4 = std::get_if<ipv4_prefix>(&own)) addresses.push_back(*v4);
  }
  return addresses;
}

void add_device_routes(const device_config& config, net_device* dev) {
  const std::vector<ipv4_prefix> addresses = ipv4_addresses(config);
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const ipv4_prefix& own = addresses[i];
    add_route(config.name, dev, {{own.address, host_length}, RTN_LOCAL, 0});
    if (own.length < host_length && is_first_in_subnet(addresses, i)) {
      add_subnet(config, dev, own, addresses);
    }
  }
  if (!config.peer) return;
  if (const u32* peer = std::get_if<u32>(&*config.peer)) {
    add_route(config.name, dev, {{*peer, host_length}, RTN_UNICAST, 0});
  }
}

void add_configured_route(const route_config& config, net_device* dev) {
  const auto* to = std::get_if<ipv4_prefix>(&config.to);
  if (config.via && std::holds_alternative<u32>(*config.via) != (to != nullptr)) {
    refuse(config.device, "a route and its gateway are of different families");
  }
  if (to == nullptr) {
    add_configured_ipv6_route(config, dev);
    return;
  }
  add_route(config.device, dev, {*to, RTN_UNICAST, config.via ? std::get<u32>(*config.via) : 0});
}

void add_configured_neighbour(const neighbour_config& config, net_device* dev) {
  if (neighbour_add_static(dev, config.address, config.mac.bytes)) return;
  const u32* ipv4 = std::get_if<u32>(&config.address);
  refuse(config.device, "no room for the neighbour " +
                            (ipv4 != nullptr ? text_of(*ipv4)
                                             : text_of(std::get<wire::in6_addr>(config.address))));
}

}  // namespace tarvelo::stack
