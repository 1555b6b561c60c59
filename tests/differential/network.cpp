// SPDX-License-Identifier: GPL-2.0-only
#include "tests/differential/network.h"

#include <algorithm>
#include <utility>

#include "kernel/wire/gre.h"
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

constexpr u16 l2tp_port = 1701;
constexpr const char* bridge = "br0";
constexpr const char* bridge_mac = "02:00:00:00:FE:01";
constexpr const char* bridge_net = "10.200.0.";
constexpr const char* bridge_net6 = "fd00:200::";

[[nodiscard]] std::string mac_with(std::size_t number, const char* last) {
  constexpr const char* digits = "0123456789ABCDEF";
  return std::string("02:00:00:00:") + digits[number / 16] + digits[number % 16] + last;
}

[[nodiscard]] constexpr u16 peer_id(u16 own) {
  return static_cast<u16>(own + 1000);
}

}  // namespace

network::network(small_random& random) {
  constexpr u32 mtus[] = {1500, 1500, 1492, 1400, 1280};
  add_bridge(one_of(mtus, random));
  for (const char* port : {"e0", "e1", "e2", "e3", "e4"}) {
    far_end& end = add(link_kind::ethernet, port, port);
    end.mtu = one_of(mtus, random);
    add_device(end, stack::port_link{port, config_mac(end.router_mac)});
  }
  struct vlan {
    const char* device;
    const char* port;
    u16 id;
    bool reorders;
  };
  constexpr vlan vlans[] = {{"e2.10", "e2", 10, true},
                            {"e2.20", "e2", 20, true},
                            {"e3.30", "e3", 30, false},
                            {"e4.60", "e4", 60, true}};
  for (const vlan& v : vlans) {
    const far_end below = ends[index_of(v.port)];
    far_end& end = add(link_kind::vlan, v.device, v.port, v.id);
    end.router_mac = below.router_mac;
    end.mtu = below.mtu;
    add_device(end, stack::vlan_link{v.port, v.id, v.reorders});
  }
  add_session("p0", "e3", random);
  add_session("p1", "e4.60", random);
  add_session("p2", bridge, random);
  for (const char* below : {"e1", "e2.10", bridge, "p0", "p1"}) {
    add_tunnel(link_kind::l2tp, std::string("l-") + below, below, random);
    add_tunnel(link_kind::pptp, std::string("g-") + below, below, random);
  }
  far_end& raw = add(link_kind::rawip, "t0", "t0");
  raw.mtu = one_of(mtus, random);
  add_device(raw, stack::rawip_link{"t0"});

  for (far_end& end : ends) {
    end.masquerades = end.kind != link_kind::bridged && random() % 4 == 0;
    if (end.masquerades) config.masquerade.push_back(end.device);
  }
}

std::size_t network::index_of(const std::string& device) const {
  const auto found = std::ranges::find(ends, device, &far_end::device);
  return static_cast<std::size_t>(found - ends.begin());
}

far_end& network::add(link_kind kind, std::string device, std::string port, u16 id) {
  const std::size_t number = ends.size();
  const std::string net = "10." + std::to_string(number) + ".0.";
  const std::string net6 = "fd00:" + std::to_string(number) + "::";
  ends.push_back({.kind = kind,
                  .device = std::move(device),
                  .port = std::move(port),
                  .id = id,
                  .router_mac = mac_with(number, ":01"),
                  .mac = mac_with(number, ":02"),
                  .router4 = net + "1",
                  .host4 = net + "2",
                  .router6 = net6 + "1",
                  .host6 = net6 + "2"});
  return ends.back();
}

/// Two hosts behind ports, two behind VLANs of which the fast path knows one.
void network::add_bridge(u32 mtu) {
  stack::device_config device;
  device.name = bridge;
  device.mtu = mtu;
  stack::bridge_link link{{}, config_mac(bridge_mac)};
  struct member {
    const char* port;
    u16 vid;
    bool reorders;
  };
  for (const member& m :
       {member{"b0", 0, true}, {"b1", 0, true}, {"b2", 40, true}, {"b3", 50, false}}) {
    far_end& end = add(link_kind::bridged, bridge, m.port, m.vid);
    const std::string last = std::to_string(ends.size() + 1);
    const stack::mac_address port_mac = config_mac(end.router_mac);
    end.router_mac = bridge_mac;
    end.router4 = std::string(bridge_net) + "1";
    end.host4 = bridge_net + last;
    end.router6 = std::string(bridge_net6) + "1";
    end.host6 = bridge_net6 + last;
    end.mtu = mtu;
    config.devices.push_back({m.port, stack::port_link{m.port, port_mac}, mtu, {}, {}});
    link.ports.emplace_back(m.port);
    if (m.vid != 0) {
      link.ports.back() += "." + std::to_string(m.vid);
      config.devices.push_back(
          {link.ports.back(), stack::vlan_link{m.port, m.vid, m.reorders}, mtu, {}, {}});
    }
    config.neighbours.push_back({bridge, ip4(end.host4), config_mac(end.mac)});
    config.neighbours.push_back({bridge, ip6(end.host6), config_mac(end.mac)});
  }
  device.link = link;
  device.addresses = {prefix_of(ends.front().router4, 24),
                      stack::ipv6_prefix{ip6(ends.front().router6), 64}};
  config.devices.push_back(device);
}

/// An interface on a link whose packets become longer by `overhead`.
far_end& network::add_ppp(link_kind kind, const std::string& device, const std::string& beneath,
                          u32 overhead, small_random& random) {
  const std::size_t below = index_of(beneath);
  far_end& end = add(kind, device, ends[below].port, static_cast<u16>(100 + ends.size()));
  end.beneath = below;
  end.router_mac = ends[below].router_mac;
  end.mac = ends[below].mac;
  end.mtu = ends[below].mtu - overhead;
  if (random() % 4 == 0) end.mtu -= random() % 64;
  return end;
}

void network::add_session(const std::string& device, const std::string& beneath,
                          small_random& random) {
  const far_end& end = add_ppp(link_kind::pppoe, device, beneath, wire::pppoe_length, random);
  add_device(end, stack::pppoe_link{beneath, end.id, config_mac(end.mac)});
}

void network::add_tunnel(link_kind kind, const std::string& device, const std::string& beneath,
                         small_random& random) {
  const far_end below = ends[index_of(beneath)];
  const u32 local = ip4(below.router4);
  const u32 remote = ip4(below.host4);
  const bool first = random() % 2 == 0;
  const bool second = random() % 2 == 0;
  if (kind == link_kind::l2tp) {
    const u32 overhead = wire::ipv4_min_length + sizeof(wire::udphdr) + (first ? 10 : 6) + 4;
    far_end& end = add_ppp(kind, device, beneath, overhead, random);
    end.numbered = first;
    add_device(end, stack::l2tp_link{local, remote, l2tp_port, l2tp_port, end.id, peer_id(end.id),
                                     end.id, peer_id(end.id), first});
    return;
  }
  const u32 framing = 4U - (first ? 1 : 0) - (second ? 2 : 0);
  const u32 overhead = wire::ipv4_min_length + wire::pptp_gre_max_length + framing;
  far_end& end = add_ppp(kind, device, beneath, overhead, random);
  end.numbered = true;
  add_device(end, stack::pptp_link{local, remote, end.id, peer_id(end.id), first, second});
}

void network::add_device(const far_end& end, stack::link_config link) {
  const bool has_neighbours = end.kind == link_kind::ethernet || end.kind == link_kind::vlan;
  stack::device_config device{end.device, std::move(link), end.mtu, {}, {}};
  device.addresses = {prefix_of(end.router4, has_neighbours ? 24 : 32),
                      stack::ipv6_prefix{ip6(end.router6), 64}};
  if (has_neighbours) {
    config.neighbours.push_back({end.device, ip4(end.host4), config_mac(end.mac)});
    config.neighbours.push_back({end.device, ip6(end.host6), config_mac(end.mac)});
  } else {
    device.peer = ip4(end.host4);
  }
  config.devices.push_back(std::move(device));
}

packet network::wrap_ethernet(const far_end& from, const std::string& to, small_random& random) {
  packet frame = packet().eth(to, from.mac);
  if (from.kind == link_kind::vlan || (from.kind == link_kind::bridged && from.id != 0)) {
    frame.vlan(from.id, random() % 8);
  }
  return frame;
}

packet network::wrap(const far_end& from, bool ipv6, small_random& random,
                     std::optional<u16> session) {
  constexpr ppp_framing framings[] = {ppp_framing::full, ppp_framing::without_address,
                                      ppp_framing::compressed, ppp_framing::compressed_address};
  constexpr u16 l2tp_words[] = {0x0002, 0x4002, 0x0802, 0x4802};
  if (from.kind == link_kind::rawip) return {};
  if (from.kind < link_kind::pppoe) {
    return wrap_ethernet(from, from.router_mac, random)
        .type(ipv6 ? wire::ethertype::ipv6 : wire::ethertype::ipv4);
  }
  const far_end& below = ends[from.beneath];
  const u16 id = session.value_or(from.id);
  if (from.kind == link_kind::pppoe) {
    return wrap_ethernet(below, below.router_mac, random)
        .pppoe(id)
        .type(ipv6 ? wire::ppp_protocol::ipv6 : wire::ppp_protocol::ipv4);
  }
  packet frame = wrap(below, false, random);
  frame.ipv4(below.host4, below.router4).tos(static_cast<u8>(random())).ttl(60);
  const u32 number = sent_++;
  if (from.kind == link_kind::l2tp) {
    frame.udp(l2tp_port, l2tp_port);
    if (random() % 2 == 0) frame.no_checksum();
    frame.l2tp(one_of(l2tp_words, random), id, id, static_cast<u16>(number));
  } else if (random() % 2 == 0) {
    frame.gre(id, number, number);
  } else {
    frame.gre(id, number);
  }
  return frame.ppp(one_of(framings, random));
}

/// What a packet from there has in front, when that is no tunnel.
std::size_t network::link_length(const far_end& end) const {
  if (end.kind == link_kind::pppoe) return link_length(ends[end.beneath]) + wire::pppoe_length;
  return end.kind == link_kind::vlan ? wire::tagged_ethernet_length : wire::ethernet_length;
}

void network::promise_more(const far_end& from, bytes& frame, small_random& random) const {
  if (from.kind != link_kind::pppoe && !from.is_tunnel()) return;
  const std::size_t below = link_length(ends[from.beneath]);
  const std::size_t header = from.is_tunnel() ? below + wire::ipv4_min_length : below;
  const std::size_t l2tp = header + sizeof(wire::udphdr);
  // PPPoE, GRE and UDP have it in the same place.
  std::size_t field = header + sizeof(u32);
  const bool has_length = (get16(frame, l2tp) & l2tp_length_present) != 0;
  if (from.kind == link_kind::l2tp && has_length && random() % 2 == 0) {
    field = l2tp + l2tp_message_length;
  }
  put16(frame, field, static_cast<u16>(get16(frame, field) + 1 + random() % 64));
}

}  // namespace tarvelo::test
