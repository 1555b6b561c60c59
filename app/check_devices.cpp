// SPDX-License-Identifier: GPL-2.0-only
//
// Devices among themselves: names, what stands on what, and the ids of VLANs and sessions.
#include <fmt/format.h>

#include <map>
#include <set>
#include <tuple>

#include "app/checker.h"

namespace tarvelo::app {

namespace {

constexpr const char* title = "device";

const item_places& places_of(const checker& c, std::size_t index) {
  return c.config().places.devices[index];
}

std::string own_interface(const stack::device_config& device) {
  if (const auto* port = std::get_if<stack::port_link>(&device.link)) return port->interface;
  if (const auto* raw = std::get_if<stack::rawip_link>(&device.link)) return raw->interface;
  return {};
}

void check_mtu(const checker& c, std::size_t index, const stack::device_config& below) {
  const stack::device_config& device = c.devices()[index];
  if (device.mtu <= below.mtu) return;
  c.fail(places_of(c, index), title, "mtu",
         fmt::format("{} has an MTU of {}, \"{}\" beneath it {}", device.name, device.mtu,
                     below.name, below.mtu),
         fmt::format("set mtu = {} or raise that of \"{}\"", below.mtu, below.name));
}

void check_vlan(const checker& c, std::size_t index, const stack::vlan_link& link) {
  const stack::device_config& parent =
      c.require_device(places_of(c, index), title, "parent", link.parent);
  if (!has_link_layer(parent) || std::holds_alternative<stack::vlan_link>(parent.link)) {
    c.fail(places_of(c, index), title, "parent",
           fmt::format("\"{}\" cannot carry a VLAN", parent.name), "name a port or a bridge");
  }
  check_mtu(c, index, parent);
}

void check_bridge(const checker& c, std::size_t index, const stack::bridge_link& link,
                  std::map<std::string, std::string>& bridge_of) {
  for (std::size_t i = 0; i < link.ports.size(); ++i) {
    const stack::device_config& port =
        c.require_device(places_of(c, index), title, "ports", link.ports[i], i);
    if (!has_link_layer(port) || std::holds_alternative<stack::bridge_link>(port.link)) {
      c.fail(places_of(c, index), title, "ports",
             fmt::format("\"{}\" cannot be a port of a bridge", port.name),
             "name ports and VLAN devices", i);
    }
    const std::string& bridge = c.devices()[index].name;
    const auto [other, is_new] = bridge_of.emplace(port.name, bridge);
    if (!is_new) {
      c.fail(places_of(c, index), title, "ports",
             fmt::format("\"{}\" is a port of \"{}\" already", port.name, other->second),
             "list a device in one bridge, once", i);
    }
    if (!port.addresses.empty()) {
      const auto port_index = static_cast<std::size_t>(&port - c.devices().data());
      c.fail(places_of(c, port_index), title, "address",
             fmt::format("\"{}\" has an address and is a port of \"{}\"", port.name, bridge),
             "give the address to the bridge");
    }
    check_mtu(c, index, port);
  }
}

void check_pppoe(const checker& c, std::size_t index, const stack::pppoe_link& link) {
  const stack::device_config& parent =
      c.require_device(places_of(c, index), title, "parent", link.parent);
  if (!has_link_layer(parent)) {
    c.fail(places_of(c, index), title, "parent",
           fmt::format("\"{}\" cannot carry a PPPoE session", parent.name),
           "name a port, a VLAN device or a bridge");
  }
}

/// Remembers who has a key first; the later one is a fault.
template <typename Key>
class first_owners {
 public:
  void claim(const checker& c, std::size_t index, std::string_view key, const Key& what,
             const std::string& text, const std::string& cure) {
    const std::string& name = c.devices()[index].name;
    const auto [first, is_new] = owners_.emplace(what, name);
    if (is_new) return;
    c.fail(places_of(c, index), title, key,
           fmt::format("{} is taken by \"{}\"", text, first->second), cure);
  }

 private:
  std::map<Key, std::string> owners_;
};

using parent_and_id = std::pair<std::string, u16>;
/// Both addresses, both ports and the peer's tunnel id: what a local tunnel id stands for.
using tunnel_ends = std::tuple<u32, u32, u16, u16, u16>;

struct session_ids {
  first_owners<parent_and_id> vlans;
  first_owners<parent_and_id> pppoe;
  first_owners<std::pair<u16, u16>> l2tp;
  first_owners<std::tuple<u32, u32, u16>> pptp;
  std::map<u16, tunnel_ends> tunnels;
};

void claim_ids(const checker& c, std::size_t i, session_ids& ids) {
  const stack::link_config& link = c.devices()[i].link;
  if (const auto* vlan = std::get_if<stack::vlan_link>(&link)) {
    ids.vlans.claim(c, i, "id", {vlan->parent, vlan->id},
                    fmt::format("VLAN {} on \"{}\"", vlan->id, vlan->parent), "choose another id");
  } else if (const auto* pppoe = std::get_if<stack::pppoe_link>(&link)) {
    ids.pppoe.claim(c, i, "session", {pppoe->parent, pppoe->session},
                    fmt::format("session {} on \"{}\"", pppoe->session, pppoe->parent),
                    "give each session on a device its own id");
  } else if (const auto* l2tp = std::get_if<stack::l2tp_link>(&link)) {
    ids.l2tp.claim(c, i, "session", {l2tp->tunnel, l2tp->session},
                   fmt::format("session {} of tunnel {}", l2tp->session, l2tp->tunnel),
                   "give each session of a tunnel its own id");
    const tunnel_ends ends{l2tp->local, l2tp->remote, l2tp->local_port, l2tp->remote_port,
                           l2tp->peer_tunnel};
    const auto [known, is_new] = ids.tunnels.emplace(l2tp->tunnel, ends);
    if (!is_new && known->second != ends) {
      c.fail(places_of(c, i), title, "tunnel",
             fmt::format("tunnel {} has other ends elsewhere in this file", l2tp->tunnel),
             "give each tunnel its own id");
    }
  } else if (const auto* pptp = std::get_if<stack::pptp_link>(&link)) {
    ids.pptp.claim(c, i, "call", {pptp->local, pptp->remote, pptp->call},
                   fmt::format("call {} between these ends", pptp->call),
                   "give each call its own id");
  }
}

}  // namespace

void check_devices(const checker& c) {
  std::set<std::string> names;
  first_owners<std::string> interfaces;
  first_owners<u64> macs;
  for (std::size_t i = 0; i < c.devices().size(); ++i) {
    const stack::device_config& device = c.devices()[i];
    if (!names.insert(device.name).second) {
      c.fail(places_of(c, i), title, "name", fmt::format("a second device \"{}\"", device.name),
             "give each device its own name");
    }
    const std::string interface = own_interface(device);
    if (!interface.empty()) {
      interfaces.claim(c, i, "interface", interface, fmt::format("interface \"{}\"", interface),
                       "give each device an interface of its own");
    }
    if (const auto* port = std::get_if<stack::port_link>(&device.link)) {
      u64 mac = 0;
      for (const u8 byte : port->mac.bytes)
        mac = mac << 8 | byte;
      macs.claim(c, i, "mac", mac, "this MAC address", "give each port its own");
    }
  }
}

void check_stacking(const checker& c) {
  std::map<std::string, std::string> bridge_of;
  for (std::size_t i = 0; i < c.devices().size(); ++i) {
    const stack::link_config& link = c.devices()[i].link;
    if (const auto* vlan = std::get_if<stack::vlan_link>(&link)) check_vlan(c, i, *vlan);
    if (const auto* bridge = std::get_if<stack::bridge_link>(&link)) {
      check_bridge(c, i, *bridge, bridge_of);
    }
    if (const auto* pppoe = std::get_if<stack::pppoe_link>(&link)) check_pppoe(c, i, *pppoe);
  }
}

void check_sessions(const checker& c) {
  session_ids ids;
  for (std::size_t i = 0; i < c.devices().size(); ++i)
    claim_ids(c, i, ids);
}

}  // namespace tarvelo::app
