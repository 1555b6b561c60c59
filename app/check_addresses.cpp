// SPDX-License-Identifier: GPL-2.0-only
//
// The router's own addresses and those of its peers and neighbours.
#include <fmt/format.h>

#include <set>

#include "app/address_text.h"
#include "app/checker.h"

namespace tarvelo::app {

namespace {

constexpr u32 ipv6_least_mtu = 1280;

const item_places& places_of(const checker& c, std::size_t index) {
  return c.config().places.devices[index];
}

void check_own_address(const checker& c, std::size_t index, std::size_t nth) {
  const stack::device_config& device = c.devices()[index];
  const address_bits address(device.addresses[nth]);
  const item_places& at = places_of(c, index);
  const std::string text = to_text(device.addresses[nth]);
  if (const char* why = why_not_a_host(address)) {
    c.fail(at, "device", "address", fmt::format("{} is {}", text, why), "give it a host's", nth);
  }
  if (address.is_end_of_network()) {
    c.fail(at, "device", "address",
           fmt::format("{} is the {} address of its network", text,
                       address.rest_is(false) ? "first" : "broadcast"),
           "give it a host's", nth);
  }
  if (!address.is_ipv4() && device.mtu < ipv6_least_mtu) {
    c.fail(at, "device", "mtu", fmt::format("an MTU of {} with an IPv6 address", device.mtu),
           fmt::format("set at least {}", ipv6_least_mtu));
  }
}

/// Two addresses clash when they are the same, or when both say that one network is on their link.
void check_clashes(const checker& c, std::size_t index, std::size_t nth) {
  const stack::device_config& device = c.devices()[index];
  const address_bits address(device.addresses[nth]);
  const std::string text = to_text(device.addresses[nth]);
  for (std::size_t other_index = 0; other_index <= index; ++other_index) {
    const stack::device_config& other = c.devices()[other_index];
    const std::size_t before = other_index == index ? nth : other.addresses.size();
    for (std::size_t i = 0; i < before; ++i) {
      const address_bits taken(other.addresses[i]);
      const bool same_network = other_index != index && taken.length() == address.length() &&
                                taken.contains(address) && !is_link_local_ipv6(address);
      if (!taken.same_address(address) && !same_network) continue;
      if (other_index != index && is_link_local_ipv6(address)) continue;
      c.fail(places_of(c, index), "device", "address",
             fmt::format("{} clashes with {} of \"{}\"", text, to_text(other.addresses[i]),
                         other.name),
             "give each device a network of its own", nth);
    }
  }
}

void check_peer(const checker& c, std::size_t index) {
  const stack::device_config& device = c.devices()[index];
  if (!device.peer) return;
  const address_bits peer(*device.peer);
  const std::string text = to_text(*device.peer);
  const item_places& at = places_of(c, index);
  c.require_host(at, "device", "peer", peer, "give it a host's");
  if (const stack::device_config* owner = c.owner(peer)) {
    c.fail(at, "device", "peer", fmt::format("{} is an address of \"{}\"", text, owner->name),
           "give the address of the other end");
  }
}

}  // namespace

void check_addresses(const checker& c) {
  for (std::size_t i = 0; i < c.devices().size(); ++i) {
    for (std::size_t nth = 0; nth < c.devices()[i].addresses.size(); ++nth) {
      check_own_address(c, i, nth);
      check_clashes(c, i, nth);
    }
  }
  for (std::size_t i = 0; i < c.devices().size(); ++i)
    check_peer(c, i);
}

void check_neighbours(const checker& c) {
  std::set<std::pair<std::string, std::string>> seen;
  const auto& neighbours = c.config().router.neighbours;
  for (std::size_t i = 0; i < neighbours.size(); ++i) {
    const stack::neighbour_config& neighbour = neighbours[i];
    const item_places& at = c.config().places.neighbours[i];
    const stack::device_config& device =
        c.require_device(at, "neighbour", "device", neighbour.device);
    if (!has_link_layer(device)) {
      c.fail(at, "neighbour", "device",
             fmt::format("\"{}\" has no hardware addresses", device.name),
             "name a port, a VLAN device or a bridge");
    }
    const address_bits address(neighbour.address);
    const std::string text = to_text(neighbour.address);
    c.require_host(at, "neighbour", "address", address, "give it a host's");
    if (const stack::device_config* owner = c.owner(address)) {
      c.fail(at, "neighbour", "address",
             fmt::format("{} is an address of \"{}\"", text, owner->name),
             "name another host's address");
    }
    if (c.way_to(address) != &device && !is_link_local_ipv6(address)) {
      c.fail(at, "neighbour", "address", fmt::format("{} is not behind \"{}\"", text, device.name),
             "name a host of the device's networks");
    }
    if (!seen.emplace(device.name, text).second) {
      c.fail(at, "neighbour", "address", fmt::format("a second neighbour {}", text),
             "name each once");
    }
  }
}

}  // namespace tarvelo::app
