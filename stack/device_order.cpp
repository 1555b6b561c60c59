// SPDX-License-Identifier: GPL-2.0-only
#include "stack/device_order.h"

#include <algorithm>
#include <set>

#include "stack/router.h"

namespace tarvelo::stack {

namespace {

using name_set = std::set<std::string, std::less<>>;

/// The names of the devices directly beneath one.
std::vector<std::string> stacked_on(const device_config& device) {
  if (const auto* vlan = std::get_if<vlan_link>(&device.link)) return {vlan->parent};
  if (const auto* pppoe = std::get_if<pppoe_link>(&device.link)) return {pppoe->parent};
  if (const auto* bridge = std::get_if<bridge_link>(&device.link)) return bridge->ports;
  return {};
}

bool is_buildable(const device_config& device, const name_set& built) {
  const std::vector<std::string> beneath = stacked_on(device);
  return std::all_of(beneath.begin(), beneath.end(),
                     [&](const std::string& name) { return built.contains(name); });
}

[[noreturn]] void refuse(const device_config& device, const std::vector<device_config>& all) {
  for (const std::string& name : stacked_on(device)) {
    const bool exists =
        std::any_of(all.begin(), all.end(), [&](const device_config& d) { return d.name == name; });
    if (!exists) {
      throw setup_error("device \"" + device.name + "\": there is no device \"" + name + "\"");
    }
  }
  throw setup_error("device \"" + device.name + "\": it is stacked on itself");
}

}  // namespace

std::vector<const device_config*> build_order(const std::vector<device_config>& devices) {
  std::vector<const device_config*> order;
  std::vector<const device_config*> waiting;
  name_set built;
  waiting.reserve(devices.size());
  for (const device_config& device : devices)
    waiting.push_back(&device);
  while (!waiting.empty()) {
    std::vector<const device_config*> later;
    for (const device_config* device : waiting) {
      if (!is_buildable(*device, built)) {
        later.push_back(device);
        continue;
      }
      order.push_back(device);
      built.insert(device->name);
    }
    if (later.size() == waiting.size()) refuse(*later.front(), devices);
    waiting = std::move(later);
  }
  return order;
}

}  // namespace tarvelo::stack
