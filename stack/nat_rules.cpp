// SPDX-License-Identifier: GPL-2.0-only
#include "stack/nat_rules.h"

#include <algorithm>

#include "stack/router.h"

namespace tarvelo::stack {
namespace {

[[nodiscard]] std::vector<u32> ipv4_addresses(const router_config& config,
                                              const std::string& name) {
  std::vector<u32> addresses;
  for (const device_config& device : config.devices) {
    if (device.name != name) continue;
    for (const ip_prefix& prefix : device.addresses) {
      if (const auto* v4 = std::get_if<ipv4_prefix>(&prefix)) addresses.push_back(v4->address);
    }
  }
  return addresses;
}

struct ruled_device {
  const net_device* dev;
  std::vector<u32> addresses;
};

[[nodiscard]] ruled_device device_of_rule(const router_config& config,
                                          const connection_tracker::device_lookup& devices,
                                          const std::string& rule, const std::string& name) {
  const net_device* dev = devices(name);
  if (dev == nullptr) throw setup_error(rule + ": there is no device \"" + name + "\"");
  std::vector<u32> addresses = ipv4_addresses(config, name);
  if (addresses.empty()) {
    throw setup_error(rule + ": device \"" + name + "\" needs an IPv4 address");
  }
  return {dev, std::move(addresses)};
}

[[nodiscard]] bool matches(const port_match& match, const nf_conntrack_tuple& tuple) noexcept {
  return match.protocol == tuple.dst.protonum && wire::htons(match.port) == tuple.dst.u;
}

}  // namespace

nat_rules::nat_rules(const router_config& config, const connection_tracker::device_lookup& devices)
    : helpers_(config.helpers), slow_(config.slow) {
  for (const std::string& name : config.masquerade) {
    const ruled_device ruled = device_of_rule(config, devices, "nat.masquerade", name);
    masquerades_.push_back({ruled.dev, ruled.addresses.front()});
  }
  for (const forward_config& rule : config.forwards) {
    ruled_device ruled = device_of_rule(config, devices, "nat.forward", rule.device);
    forwards_.push_back({ruled.dev,
                         std::move(ruled.addresses),
                         rule.protocol,
                         wire::htons(rule.port),
                         {rule.to_address, wire::htons(rule.to_port)}});
  }
}

std::optional<endpoint> nat_rules::forward_target(const net_device* dev,
                                                  const nf_conntrack_tuple& tuple) const noexcept {
  for (const forward& rule : forwards_) {
    if (rule.dev == dev && rule.protocol == tuple.dst.protonum && rule.port == tuple.dst.u &&
        std::ranges::find(rule.addresses, tuple.dst.u3.ip) != rule.addresses.end()) {
      return rule.to;
    }
  }
  return std::nullopt;
}

std::optional<u32> nat_rules::masquerade_address(const net_device* dev) const noexcept {
  for (const masquerade& rule : masquerades_) {
    if (rule.dev == dev) return rule.address;
  }
  return std::nullopt;
}

const char* nat_rules::helper_of(const nf_conntrack_tuple& tuple) const noexcept {
  for (const helper_config& helper : helpers_) {
    if (matches(helper.match, tuple)) return helper.name.c_str();
  }
  return nullptr;
}

bool nat_rules::stays_slow(const nf_conntrack_tuple& tuple) const noexcept {
  return std::ranges::any_of(slow_, [&](const port_match& match) { return matches(match, tuple); });
}

void nat_rules::forget_device(const net_device* dev) {
  std::erase_if(masquerades_, [&](const masquerade& rule) { return rule.dev == dev; });
  std::erase_if(forwards_, [&](const forward& rule) { return rule.dev == dev; });
}

}  // namespace tarvelo::stack
