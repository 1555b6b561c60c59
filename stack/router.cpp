// SPDX-License-Identifier: GPL-2.0-only
#include "stack/router.h"

#include <string>

#include "kernel/fast_path.h"
#include "kernel/module_loader.h"
#include "kernel/neighbour.h"
#include "kernel/route.h"
#include "stack/device_order.h"
#include "stack/device_setup.h"
#include "stack/ip_forward.h"
#include "stack/ip_input.h"
#include "stack/link_state.h"
#include "stack/neighbour_cache.h"
#include "stack/receive.h"
#include "stack/route_setup.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

int input_result(receive_verdict verdict) noexcept {
  return verdict == receive_verdict::dropped ? -1 : 0;
}

int run_forward(sk_buff* skb) {
  return input_result(forward_packet(skb));
}

int run_local_deliver(sk_buff* skb) {
  return input_result(deliver_locally(skb));
}

constexpr inet_input_ops input_ops{run_forward, run_local_deliver};

}  // namespace

struct router::state {
  state(const router_config& config, const net_device_ops* port_ops);
  ~state();
  state(const state&) = delete;
  state& operator=(const state&) = delete;

  void build(const router_config& config, const net_device_ops* port_ops);
  void take_down();
  [[nodiscard]] net_device* require_device(const std::string& name) const;
  void module_live();
  void module_going();

  stack_core shared;
  module_notifier notifier;
  bool module_is_live = false;
};

router::state::state(const router_config& config, const net_device_ops* port_ops)
    : shared(config.table_limits),
      notifier{[](void* self) { static_cast<state*>(self)->module_live(); },
               [](void* self) { static_cast<state*>(self)->module_going(); }, this} {
  set_core(&shared);
  inet_set_input(&input_ops);
  try {
    build(config, port_ops);
  } catch (...) {
    take_down();
    throw;
  }
}

router::state::~state() {
  take_down();
}

void router::state::build(const router_config& config, const net_device_ops* port_ops) {
  neigh_table_limit(&arp_tbl, config.table_limits.neighbours);
  neigh_table_limit(&nd_tbl, config.table_limits.neighbours);
  for (const device_config* device : build_order(config.devices))
    set_up_device(*device, port_ops);
  for (const route_config& route : config.routes) {
    add_configured_route(route, require_device(route.device));
  }
  for (const neighbour_config& entry : config.neighbours) {
    net_device* dev = require_device(entry.device);
    const stack_guard guard;
    add_configured_neighbour(entry, dev);
  }
  shared.ppp.settle();
  shared.tracker = std::make_unique<connection_tracker>(
      config, [this](const std::string& name) { return shared.devices.by_name(name); });
  for (const auto& record : shared.devices.all())
    link_has_come_up(record->dev);

  set_module_notifier(&notifier);
  if (rcu_dereference(kcih) != nullptr) module_live();
}

net_device* router::state::require_device(const std::string& name) const {
  net_device* dev = shared.devices.by_name(name);
  if (dev == nullptr) throw setup_error("device \"" + name + "\": there is no such device");
  return dev;
}

/// In the order in which things depend on each other, as far as they have been set up: what waits
/// holds connections, connections, routes, bridges and sessions hold devices.
void router::state::take_down() {
  set_module_notifier(nullptr);
  write_once(shared.offering, false);
  for (const auto& record : shared.devices.all())
    dev_close(record->dev);
  shared.reassembly.clear();
  shared.bridges.clear();  // while there is a tracker, which their timers call
  {
    // All in one hold: a timer in between could have one device's error wait on another.
    const stack_guard guard;
    for (const auto& record : shared.devices.all())
      neighbour_forget_all(record->dev);
  }
  shared.tracker.reset();
  shared.ppp.clear();
  take_devices_away();
  inet_set_input(nullptr);
  rcu_barrier();
  set_core(nullptr);
}

void router::state::module_live() {
  if (module_is_live) return;
  module_is_live = true;
  shared.tracker->module_live();
  {
    const stack_guard guard;
    for (const auto& one : shared.bridges)
      one->report_all();
  }
  write_once(shared.offering, true);
}

void router::state::module_going() {
  module_is_live = false;
  write_once(shared.offering, false);
  // Offers that saw the module are over before its records are taken back.
  synchronize_rcu();
  shared.tracker->module_going();
}

router::router(const router_config& config, const net_device_ops* port_ops)
    : state_(std::make_unique<state>(config, port_ops)) {}

router::~router() = default;

receive_verdict router::receive(sk_buff* skb) {
  return receive_frame(skb);
}

net_device* router::device(std::string_view name) const {
  return state_->shared.devices.by_name(name);
}

void router::set_link(net_device* dev, bool up) {
  if (up) {
    link_has_come_up(dev);
  } else {
    link_has_gone_down(dev);
  }
}

router_statistics router::statistics() const {
  const stack_guard guard;
  const stack_core& shared = state_->shared;
  router_statistics sum{};
  for (const receive_counters& cpu : shared.received) {
    sum.offered += read_once(cpu.offered);
    sum.fast += read_once(cpu.fast);
    sum.dropped += read_once(cpu.dropped);
  }
  const conntrack_statistics tracked = shared.tracker->statistics();
  sum.connections = tracked.connections;
  sum.connections_made = tracked.made;
  sum.connections_refused = tracked.refused;
  sum.slow_forwarded = shared.slow_forwarded;
  sum.neighbours_refused = shared.neighbours_refused;
  sum.reassembly_refused = shared.reassembly.refused();
  sum.icmp_errors_sent = shared.icmp_errors_sent;
  return sum;
}

}  // namespace tarvelo::stack
