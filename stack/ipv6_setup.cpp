// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ipv6_setup.h"

#include <cstdio>

#include "kernel/errno.h"
#include "kernel/route6.h"
#include "stack/ipv6_packet.h"
#include "stack/nd.h"
#include "stack/router.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

constexpr u8 host_length = 128;
constexpr u8 link_local_length = 64;

[[noreturn]] void refuse(const std::string& device, const std::string& why) {
  throw setup_error("device \"" + device + "\": " + why);
}

void add_route(const std::string& device, net_device* dev, const ipv6_prefix& to, rt_class type,
               const wire::in6_addr* gateway) {
  const int error = ip6_route_add(&to.address, to.length, type, gateway, dev);
  if (error == 0) return;
  const std::string name = text_of(to.address) + '/' + std::to_string(to.length);
  if (error == -EEXIST) refuse(device, "there is another route to " + name);
  if (error == -EINVAL) refuse(device, "route to " + name + " has bits below its prefix");
  refuse(device, "no memory for the route to " + name);
}

/// The prefix without the bits below it.
ipv6_prefix subnet_of(const ipv6_prefix& own) noexcept {
  constexpr u32 byte_bits = 8;
  ipv6_prefix subnet = own;
  for (u32 bit = own.length; bit < host_length; ++bit) {
    u8& byte = subnet.address.bytes[bit / byte_bits];
    byte = static_cast<u8>(byte & ~(0x80U >> (bit % byte_bits)));
  }
  return subnet;
}

/// The addresses of a device, the link-local one that it gives itself at the end.
std::vector<ipv6_prefix> addresses_of(const device_config& config, const net_device* dev) {
  std::vector<ipv6_prefix> addresses;
  for (const ip_prefix& own : config.addresses) {
    if (const auto* v6 = std::get_if<ipv6_prefix>(&own)) addresses.push_back(*v6);
  }
  if (dev->type == ARPHRD_ETHER) {
    addresses.push_back({link_local_address(dev->dev_addr), link_local_length});
  }
  return addresses;
}

/// A subnet is entered once, however many of the device's addresses lie in it.
bool is_first_in_subnet(const std::vector<ipv6_prefix>& addresses, std::size_t index) noexcept {
  for (std::size_t i = 0; i < index; ++i) {
    if (addresses[i].length == addresses[index].length &&
        in_prefix(addresses[i].address, addresses[index])) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string text_of(const wire::in6_addr& address) {
  std::string text;
  for (std::size_t i = 0; i < sizeof address.bytes; i += 2) {
    char group[sizeof "ffff:"];
    const int value = address.bytes[i] << 8 | address.bytes[i + 1];
    std::snprintf(group, sizeof group, i == 0 ? "%x" : ":%x", static_cast<unsigned>(value));
    text += group;
  }
  return text;
}

void set_up_ipv6(const device_config& config, net_device* dev) {
  const std::vector<ipv6_prefix> addresses = addresses_of(config, dev);
  core().devices.add_ipv6(dev, addresses);
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const ipv6_prefix& own = addresses[i];
    // Link-local addresses are on every link: no route tells which.
    if (is_link_local(own.address)) continue;
    add_route(config.name, dev, {own.address, host_length}, RTN_LOCAL, nullptr);
    if (own.length < host_length && is_first_in_subnet(addresses, i)) {
      add_route(config.name, dev, subnet_of(own), RTN_UNICAST, nullptr);
    }
  }
  if (!config.peer) return;
  const auto* peer = std::get_if<wire::in6_addr>(&*config.peer);
  if (peer == nullptr || is_link_local(*peer)) return;
  add_route(config.name, dev, {*peer, host_length}, RTN_UNICAST, nullptr);
}

void add_configured_ipv6_route(const route_config& config, net_device* dev) {
  const wire::in6_addr* gateway = config.via ? &std::get<wire::in6_addr>(*config.via) : nullptr;
  add_route(config.device, dev, std::get<ipv6_prefix>(config.to), RTN_UNICAST, gateway);
}

}  // namespace tarvelo::stack
