// SPDX-License-Identifier: GPL-2.0-only
#include "stack/router.h"

#include <cstring>
#include <string>

#include "kernel/fast_path.h"
#include "kernel/module_loader.h"
#include "kernel/neighbour.h"
#include "kernel/route.h"
#include "stack/ip_forward.h"
#include "stack/ip_input.h"
#include "stack/neighbour_cache.h"
#include "stack/receive.h"
#include "stack/route_setup.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

template <typename... Visitors>
struct overloaded : Visitors... {
  using Visitors::operator()...;
};

const char* type_name(const link_config& link) noexcept {
  return std::visit(
      overloaded{[](const port_link&) { return "port"; }, [](const vlan_link&) { return "vlan"; },
                 [](const bridge_link&) { return "bridge"; },
                 [](const pppoe_link&) { return "pppoe"; }, [](const l2tp_link&) { return "l2tp"; },
                 [](const pptp_link&) { return "pptp"; },
                 [](const rawip_link&) { return "rawip"; }},
      link);
}

[[noreturn]] void refuse(const device_config& config, const std::string& why) {
  throw setup_error("device \"" + config.name + "\": " + why);
}

/// An unregistered device of the configured type; null without memory.
net_device* make_device(const device_config& config) {
  if (const auto* port = std::get_if<port_link>(&config.link)) {
    net_device* dev = alloc_netdev(config.name.c_str(), ARPHRD_ETHER);
    if (dev == nullptr) return nullptr;
    dev->flags |= IFF_BROADCAST;
    std::memcpy(dev->dev_addr, port->mac.bytes, wire::mac_length);
    return dev;
  }
  net_device* dev = alloc_netdev(config.name.c_str(), ARPHRD_NONE);
  if (dev != nullptr) dev->flags |= IFF_POINTOPOINT;
  return dev;
}

device_kind kind_of(const device_config& config) {
  if (std::holds_alternative<port_link>(config.link)) return device_kind::port;
  if (std::holds_alternative<rawip_link>(config.link)) return device_kind::rawip;
  refuse(config, std::string("type ") + type_name(config.link) + " is not supported by this build");
}

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

/// Takes a device out of the module's caches. The read side keeps the handle.
void sweep_from_fast_path(net_device* dev) {
  rcu_read_lock();
  if (vok_handle* handle = rcu_dereference(kcih); handle != nullptr) {
    handle->_vok_ipc_delete_by_dev(handle, dev);
  }
  rcu_read_unlock();
}

}  // namespace

struct router::state {
  state(const router_config& config, const net_device_ops* port_ops);
  ~state();
  state(const state&) = delete;
  state& operator=(const state&) = delete;

  void build(const router_config& config, const net_device_ops* port_ops);
  void add_device(const device_config& config, const net_device_ops* port_ops);
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
  for (const device_config& device : config.devices)
    add_device(device, port_ops);
  for (const route_config& route : config.routes) {
    add_configured_route(route, require_device(route.device));
  }
  for (const neighbour_config& entry : config.neighbours) {
    net_device* dev = require_device(entry.device);
    const stack_guard guard;
    add_configured_neighbour(entry, dev);
  }
  shared.tracker = std::make_unique<connection_tracker>(
      config, [this](const std::string& name) { return shared.devices.by_name(name); });
  for (const auto& record : shared.devices.all())
    dev_open(record->dev);

  set_module_notifier(&notifier);
  if (rcu_dereference(kcih) != nullptr) module_live();
}

void router::state::add_device(const device_config& config, const net_device_ops* port_ops) {
  const device_kind kind = kind_of(config);
  net_device* dev = make_device(config);
  if (dev == nullptr) refuse(config, "no memory");
  dev->mtu = config.mtu;
  dev->netdev_ops = port_ops;
  if (register_netdevice(dev) != 0) {
    free_netdev(dev);
    refuse(config, "the name is taken");
  }
  shared.devices.add(dev, kind, ipv4_addresses(config));
  add_device_routes(config, dev);
  if (kind != device_kind::rawip) return;
  const stack_guard guard;
  if (!neighbour_add_point_to_point(dev)) refuse(config, "no room for its neighbour entry");
}

net_device* router::state::require_device(const std::string& name) const {
  net_device* dev = shared.devices.by_name(name);
  if (dev == nullptr) throw setup_error("device \"" + name + "\": there is no such device");
  return dev;
}

/// In the order in which things depend on each other, as far as they have been set up: what waits
/// holds connections, connections and routes hold devices.
void router::state::take_down() {
  set_module_notifier(nullptr);
  write_once(shared.offering, false);
  for (const auto& record : shared.devices.all())
    dev_close(record->dev);
  shared.reassembly.clear();
  {
    // All in one hold: a timer in between could have one device's error wait on another.
    const stack_guard guard;
    for (const auto& record : shared.devices.all())
      neighbour_forget_all(record->dev);
  }
  shared.tracker.reset();
  for (const auto& record : shared.devices.all()) {
    sweep_from_fast_path(record->dev);
    ip_route_flush(record->dev);
    unregister_netdevice(record->dev);
  }
  inet_set_input(nullptr);
  rcu_barrier();
  set_core(nullptr);
}

void router::state::module_live() {
  if (module_is_live) return;
  module_is_live = true;
  shared.tracker->module_live();
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
    dev_open(dev);
    return;
  }
  // Down first: nothing that comes or goes by the device can enter the caches again.
  dev_close(dev);
  {
    const stack_guard guard;
    neighbour_forget_learnt(dev);
    state_->shared.tracker->path_changed(dev, false);
  }
  sweep_from_fast_path(dev);
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
