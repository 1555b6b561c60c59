// SPDX-License-Identifier: GPL-2.0-only
#include "stack/link_state.h"

#include <vector>

#include "stack/fast_path_devices.h"
#include "stack/fast_path_tunnels.h"
#include "stack/neighbour_cache.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

/// A device and those that are stacked on it, the lowest first.
std::vector<const device_record*> stack_above(const net_device* dev) {
  std::vector<const device_record*> found;
  if (const device_record* lowest = core().devices.find(dev)) found.push_back(lowest);
  for (std::size_t i = 0; i < found.size(); ++i) {
    for (const auto& record : core().devices.all()) {
      if (record->beneath == found[i]->dev) found.push_back(record.get());
    }
  }
  return found;
}

/// Under the stack's lock.
void forget_paths_by(const device_record& record) {
  neighbour_forget_learnt(record.dev);
  core().tracker->path_changed(record.dev, false);
  if (record.bridge_port == nullptr) return;
  for (const auto& one : core().bridges) {
    if (one->device() == record.bridge_port->br->dev) one->forget_port(record.bridge_port);
  }
}

}  // namespace

void link_has_come_up(net_device* dev) {
  for (const device_record* record : stack_above(dev)) {
    dev_open(record->dev);
    if (record->bridge_port != nullptr) br_port_set_state(record->bridge_port, BR_STATE_FORWARDING);
  }
}

void link_has_gone_down(net_device* dev) {
  const std::vector<const device_record*> affected = stack_above(dev);
  // Down first: nothing that comes or goes by the devices can enter the caches again.
  for (const device_record* record : affected) {
    if (record->bridge_port != nullptr) br_port_set_state(record->bridge_port, BR_STATE_DISABLED);
    dev_close(record->dev);
  }
  {
    const stack_guard guard;
    for (const device_record* record : affected)
      forget_paths_by(*record);
  }
  for (const device_record* record : affected) {
    fast_path_sweep(record->dev);
    if (const ppp_session* session = session_of(record->dev)) fast_path_sweep(*session);
  }
}

void path_has_changed(const net_device* dev) {
  for (const device_record* record : stack_above(dev))
    core().tracker->path_changed(record->dev, false);
}

}  // namespace tarvelo::stack
