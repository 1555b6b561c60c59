// SPDX-License-Identifier: GPL-2.0-only
#include "stack/device_setup.h"

#include <cstring>
#include <string>

#include "kernel/errno.h"
#include "kernel/if_vlan.h"
#include "kernel/route.h"
#include "kernel/route6.h"
#include "kernel/vlan_table.h"
#include "stack/fast_path_devices.h"
#include "stack/ipv6_setup.h"
#include "stack/neighbour_cache.h"
#include "stack/ppp.h"
#include "stack/route_setup.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"
#include "stack/vlan.h"

namespace tarvelo::stack {

namespace {

[[noreturn]] void refuse(const device_config& config, const std::string& why) {
  throw setup_error("device \"" + config.name + "\": " + why);
}

/// A device that is there already.
net_device* require_device(const device_config& config, const std::string& name) {
  net_device* dev = core().devices.by_name(name);
  if (dev == nullptr) refuse(config, "there is no device \"" + name + "\"");
  return dev;
}

/// Registers and enters a device, which null stands for want of memory.
device_record& enter_device(const device_config& config, net_device* dev, device_kind kind) {
  if (dev == nullptr) refuse(config, "no memory");
  dev->mtu = config.mtu;
  if (register_netdevice(dev) != 0) {
    free_netdev(dev);
    refuse(config, "the name is taken");
  }
  return core().devices.add(dev, kind, ipv4_addresses(config));
}

net_device* make_ethernet(const device_config& config, const mac_address& mac) {
  net_device* dev = alloc_netdev(config.name.c_str(), ARPHRD_ETHER);
  if (dev == nullptr) refuse(config, "no memory");
  dev->flags |= IFF_BROADCAST;
  std::memcpy(dev->dev_addr, mac.bytes, wire::mac_length);
  return dev;
}

net_device* make_point_to_point(const device_config& config, u16 type, const net_device_ops* ops) {
  net_device* dev = alloc_netdev(config.name.c_str(), type);
  if (dev == nullptr) return nullptr;
  dev->flags |= IFF_POINTOPOINT;
  dev->netdev_ops = ops;
  return dev;
}

void enter_point_to_point(const device_config& config, net_device* dev, device_kind kind) {
  enter_device(config, dev, kind);
  const stack_guard guard;
  if (!neighbour_add_point_to_point(dev)) refuse(config, "no room for its neighbour entry");
}

void build(const device_config& config, const port_link& link, const net_device_ops* port_ops) {
  net_device* dev = make_ethernet(config, link.mac);
  dev->netdev_ops = port_ops;
  enter_device(config, dev, device_kind::port);
}

void build(const device_config& config, const rawip_link&, const net_device_ops* port_ops) {
  enter_point_to_point(config, make_point_to_point(config, ARPHRD_NONE, port_ops),
                       device_kind::rawip);
}

void build(const device_config& config, const vlan_link& link, const net_device_ops*) {
  net_device* real_dev = require_device(config, link.parent);
  net_device* dev = make_vlan_device(config.name, link, real_dev);
  device_record& record = enter_device(config, dev, device_kind::vlan);
  record.beneath = real_dev;
  switch (vlan_table_add(dev)) {
    case 0:
      return;
    case -EEXIST:
      refuse(config, "VLAN " + std::to_string(link.id) + " is taken");
    case -EINVAL:
      refuse(config, "there is no VLAN " + std::to_string(link.id));
    default:
      refuse(config, "no room for VLAN " + std::to_string(link.id));
  }
}

void add_bridge_port(const device_config& config, bridge& made, const std::string& name) {
  device_record* port = core().devices.find_to_change(require_device(config, name));
  if (port->kind != device_kind::port && port->kind != device_kind::vlan) {
    refuse(config, "\"" + name + "\" cannot be a port of a bridge");
  }
  if (port->bridge_port != nullptr)
    refuse(config, "\"" + name + "\" is a port of a bridge already");
  port->bridge_port = made.add_port(port->dev);
  if (port->bridge_port == nullptr) refuse(config, "no memory for its port \"" + name + "\"");
}

/// The bridge comes before its device, which the stack's packets find only when it is registered.
void build(const device_config& config, const bridge_link& link, const net_device_ops*) {
  net_device* dev = make_ethernet(config, link.mac);
  try {
    core().bridges.push_back(std::make_unique<bridge>(dev, core().table_limits.bridge_hosts));
  } catch (...) {
    free_netdev(dev);
    throw;
  }
  bridge& made = *core().bridges.back();
  enter_device(config, dev, device_kind::bridge);
  if (!made.add_own_address()) refuse(config, "no memory for its address");
  for (const std::string& name : link.ports)
    add_bridge_port(config, made, name);
}

net_device* enter_ppp_interface(const device_config& config) {
  net_device* dev = make_point_to_point(config, ARPHRD_PPP, ppp_device_ops());
  enter_point_to_point(config, dev, device_kind::ppp);
  return dev;
}

void build(const device_config& config, const pppoe_link& link, const net_device_ops*) {
  net_device* parent = require_device(config, link.parent);
  core().ppp.add(enter_ppp_interface(config), link, parent);
}

void build(const device_config& config, const l2tp_link& link, const net_device_ops*) {
  core().ppp.add(enter_ppp_interface(config), link);
}

void build(const device_config& config, const pptp_link& link, const net_device_ops*) {
  core().ppp.add(enter_ppp_interface(config), link);
}

}  // namespace

void set_up_device(const device_config& config, const net_device_ops* port_ops) {
  std::visit([&](const auto& link) { build(config, link, port_ops); }, config.link);
  net_device* dev = core().devices.by_name(config.name);
  add_device_routes(config, dev);
  set_up_ipv6(config, dev);
}

void take_devices_away() {
  for (const auto& record : core().devices.all()) {
    net_device* dev = record->dev;
    fast_path_sweep(dev);
    ip_route_flush(dev);
    ip6_route_flush(dev);
    if (is_vlan_dev(dev)) vlan_table_remove(dev);
    unregister_netdevice(dev);
  }
}

}  // namespace tarvelo::stack
