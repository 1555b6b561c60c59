// SPDX-License-Identifier: GPL-2.0-only
//
// Ways through the router: routes, the ends of tunnels, address translation and the rules that
// name connections.
#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <tuple>

#include "app/address_text.h"
#include "app/checker.h"

namespace tarvelo::app {

namespace {

void check_gateway(const checker& c, const item_places& at, const stack::route_config& route,
                   const stack::device_config& device) {
  const address_bits via(*route.via);
  const std::string text = to_text(*route.via);
  if (via.is_ipv4() != address_bits(route.to).is_ipv4()) {
    c.fail(at, "route", "via", fmt::format("{} is not of the family of the prefix", text),
           "give a gateway of the same family");
  }
  c.require_host(at, "route", "via", via, "give a gateway's address");
  if (const stack::device_config* owner = c.owner(via)) {
    c.fail(at, "route", "via", fmt::format("{} is an address of \"{}\"", text, owner->name),
           "give the gateway's address");
  }
  const auto networks = checker::connected(device);
  const bool reachable = std::any_of(networks.begin(), networks.end(),
                                     [&](const address_bits& n) { return n.contains(via); });
  if (!reachable && !is_link_local_ipv6(via)) {
    c.fail(at, "route", "via", fmt::format("gateway {} is not behind \"{}\"", text, device.name),
           "give a gateway in one of the device's networks");
  }
}

/// The prefixes that the addresses of the devices bring along.
const stack::device_config* connected_to(const checker& c, const address_bits& prefix) {
  for (const stack::device_config& device : c.devices()) {
    for (const address_bits& network : checker::connected(device)) {
      if (network.length() == prefix.length() && network.contains(prefix)) return &device;
    }
  }
  return nullptr;
}

struct tunnel_end_pair {
  u32 local;
  u32 remote;
};

std::optional<tunnel_end_pair> tunnel_of(const stack::device_config& device) {
  if (const auto* l2tp = std::get_if<stack::l2tp_link>(&device.link)) {
    return tunnel_end_pair{l2tp->local, l2tp->remote};
  }
  if (const auto* pptp = std::get_if<stack::pptp_link>(&device.link)) {
    return tunnel_end_pair{pptp->local, pptp->remote};
  }
  return std::nullopt;
}

void check_masquerade(const checker& c) {
  const auto& names = c.config().router.masquerade;
  const item_places& at = c.config().places.nat;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const stack::device_config& device = c.require_device(at, "nat", "masquerade", names[i], i);
    if (!has_ipv4(device)) {
      c.fail(at, "nat", "masquerade", fmt::format("\"{}\" has no IPv4 address", device.name),
             "give it one or take it out", i);
    }
    if (std::count(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(i), names[i]) != 0) {
      c.fail(at, "nat", "masquerade", fmt::format("\"{}\" a second time", device.name),
             "name each device once", i);
    }
  }
}

void check_forwards(const checker& c) {
  std::set<std::tuple<std::string, u8, u16>> seen;
  const auto& forwards = c.config().router.forwards;
  for (std::size_t i = 0; i < forwards.size(); ++i) {
    const stack::forward_config& forward = forwards[i];
    const item_places& at = c.config().places.forwards[i];
    const stack::device_config& device =
        c.require_device(at, "nat.forward", "device", forward.device);
    if (!has_ipv4(device)) {
      c.fail(at, "nat.forward", "device", fmt::format("\"{}\" has no IPv4 address", device.name),
             "give it one or name another");
    }
    if (!seen.emplace(forward.device, forward.protocol, forward.port).second) {
      c.fail(at, "nat.forward", "port", fmt::format("port {} is forwarded already", forward.port),
             "forward each port once");
    }
    const address_bits to(stack::ip_address{forward.to_address});
    const std::string text = to_text(stack::ip_address{forward.to_address});
    c.require_host(at, "nat.forward", "to", to, "give it a host's");
    if (const stack::device_config* owner = c.owner(to)) {
      c.fail(at, "nat.forward", "to", fmt::format("{} is an address of \"{}\"", text, owner->name),
             "forward to another host");
    }
    if (c.way_to(to) == nullptr) {
      c.fail(at, "nat.forward", "to", fmt::format("no route to {}", text),
             "forward to a host that a device or [[route]] reaches");
    }
  }
}

class match_set {
 public:
  explicit match_set(const char* title) : title_(title) {}

  void add(const checker& c, const item_places& at, const stack::port_match& match) {
    if (seen_.emplace(match.protocol, match.port).second) return;
    c.fail(at, title_, "port", fmt::format("port {} a second time", match.port),
           "name each port of a protocol once");
  }

 private:
  const char* title_;
  std::set<std::pair<u8, u16>> seen_;
};

}  // namespace

void check_routes(const checker& c) {
  std::set<std::string> seen;
  const auto& routes = c.config().router.routes;
  for (std::size_t i = 0; i < routes.size(); ++i) {
    const stack::route_config& route = routes[i];
    const item_places& at = c.config().places.routes[i];
    const address_bits to(route.to);
    const std::string text = to_text(route.to);
    if (!to.rest_is(false)) {
      c.fail(at, "route", "to", fmt::format("{} has bits beyond its length", text),
             fmt::format("write {}", to_text(to.network().to_prefix())));
    }
    if (!seen.insert(text).second) {
      c.fail(at, "route", "to", fmt::format("a second route to {}", text),
             "give each prefix one route");
    }
    const stack::device_config& device = c.require_device(at, "route", "device", route.device);
    if (const stack::device_config* direct = connected_to(c, to)) {
      c.fail(at, "route", "to", fmt::format("{} is connected to \"{}\"", text, direct->name),
             "take the route out");
    }
    if (route.via) check_gateway(c, at, route, device);
  }
}

void check_tunnel_ends(const checker& c) {
  for (std::size_t i = 0; i < c.devices().size(); ++i) {
    const stack::device_config& device = c.devices()[i];
    const auto ends = tunnel_of(device);
    if (!ends) continue;
    const item_places& at = c.config().places.devices[i];
    const stack::ip_address local{ends->local};
    const stack::device_config* owner = c.owner(address_bits(local));
    if (owner == nullptr || owner == &device) {
      c.fail(at, "device", "local", fmt::format("no other device has {}", to_text(local)),
             "give an address of the device that the tunnel leaves by");
    }
    const stack::ip_address remote{ends->remote};
    if (c.owner(address_bits(remote)) != nullptr) {
      c.fail(at, "device", "remote", fmt::format("{} is the router's own", to_text(remote)),
             "give the address of the other end");
    }
    const stack::device_config* way = c.way_to(address_bits(remote));
    if (way == nullptr || way == &device) {
      c.fail(at, "device", "remote", fmt::format("no route to {}", to_text(remote)),
             "add a [[route]] by another device");
    }
  }
}

void check_nat(const checker& c) {
  check_masquerade(c);
  check_forwards(c);
}

void check_matches(const checker& c) {
  const stack::router_config& router = c.config().router;
  match_set helped("helper");
  for (std::size_t i = 0; i < router.helpers.size(); ++i) {
    helped.add(c, c.config().places.helpers[i], router.helpers[i].match);
  }
  match_set slow("slow");
  for (std::size_t i = 0; i < router.slow.size(); ++i) {
    slow.add(c, c.config().places.slow[i], router.slow[i]);
  }
}

}  // namespace tarvelo::app
