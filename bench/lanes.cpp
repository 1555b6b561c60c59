// SPDX-License-Identifier: GPL-2.0-only
#include "bench/lanes.h"

#include <fmt/format.h>

#include <cstring>

#include "kernel/wire/l2tp.h"
#include "tests/support/net_text.h"

namespace tarvelo::bench {
namespace {

constexpr char tunnel_remote[] = "198.51.100.7";
constexpr char wan_network6[] = "2001:db8:2::1";
constexpr char lan_network6[] = "2001:db8:1::1";
constexpr char wan_gateway6[] = "2001:db8:2::fe";
constexpr char bridge_mac[] = "02:00:00:00:05:01";
constexpr u16 vlan_id = 7;
constexpr u16 pppoe_session = 0x1234;
constexpr u16 l2tp_port = 1701;
constexpr u16 tunnel_id = 10;
constexpr u16 session_id = 30;
constexpr u16 call_id = 5;
constexpr u32 first_host = 2;
constexpr u32 last_host = 201;
constexpr std::size_t payload_bytes = 22;  // a 64-byte frame, where nothing is wrapped around it
constexpr u16 piece_bytes = 64;
constexpr u16 datagram_id = 0x1234;

stack::mac_address mac_address(const char* text) {
  stack::mac_address result{};
  std::memcpy(result.bytes, test::mac_of(text).at, sizeof result.bytes);
  return result;
}

wire::in6_addr ip6(const std::string& text) {
  return test::ip6(text);
}

std::string ip6_text(u32 address, const char* network) {
  const u32 host = wire::ntohl(address);
  return fmt::format("2001:db8:{}::{:x}:{:x}", network, host >> 16, host & 0xFFFF);
}

std::string client_of(const lane& l, const connection& c) {
  return l.ipv6 ? ip6_text(c.client, "1") : test::ip4_text(c.client);
}

std::string server_of(const lane& l, const connection& c) {
  return l.ipv6 ? ip6_text(c.server, "7") : test::ip4_text(c.server);
}

stack::ipv4_prefix prefix4(const char* address, u8 length) {
  return {.address = test::ip4(address), .length = length};
}

stack::device_config device(const char* name, stack::link_config link) {
  stack::device_config result;
  result.name = name;
  result.link = std::move(link);
  return result;
}

stack::device_config port(const char* name, const char* mac) {
  return device(name, stack::port_link{.interface = name, .mac = mac_address(mac)});
}

/// The inside with its hosts, and the bare outside port.
stack::router_config inside() {
  stack::router_config config;
  config.devices = {port("lan0", lan_mac), port("wan0", wan_mac)};
  config.devices[0].addresses = {prefix4("192.168.1.1", 24)};
  for (u32 host = first_host; host <= last_host; ++host) {
    config.neighbours.push_back({.device = "lan0",
                                 .address = wire::htonl(0xC0A80100 + host),
                                 .mac = mac_address(lan_host_mac)});
  }
  return config;
}

/// Lets the device lead to the gateway, and everything to it.
void lead_out(stack::router_config& config, const std::string& name) {
  for (stack::device_config& d : config.devices) {
    if (d.name == name) d.addresses = {prefix4(public_address, 24)};
  }
  config.neighbours.push_back(
      {.device = name, .address = test::ip4(wan_gateway), .mac = mac_address(wan_gateway_mac)});
  config.routes.push_back({.to = prefix4("0.0.0.0", 0),
                           .via = stack::ip_address(test::ip4(wan_gateway)),
                           .device = name});
}

/// Everything goes by a session.
void lead_out_by(stack::router_config& config, stack::device_config session, const char* own,
                 const char* peer) {
  session.addresses = {prefix4(own, 32)};
  session.peer = test::ip4(peer);
  std::erase_if(config.routes, [](const stack::route_config&) { return true; });
  config.routes.push_back({.to = prefix4("0.0.0.0", 0), .via = {}, .device = session.name});
  config.routes.push_back({.to = prefix4(tunnel_remote, 32),
                           .via = stack::ip_address(test::ip4(wan_gateway)),
                           .device = "wan0"});
  config.devices.push_back(std::move(session));
}

stack::router_config plain_router() {
  stack::router_config config = inside();
  lead_out(config, "wan0");
  return config;
}

stack::router_config vlan_router() {
  stack::router_config config = inside();
  config.devices.push_back(device("wan0.7", stack::vlan_link{.parent = "wan0", .id = vlan_id}));
  lead_out(config, "wan0.7");
  return config;
}

stack::device_config pppoe_device() {
  stack::device_config session =
      device("ppp0", stack::pppoe_link{.parent = "wan0",
                                       .session = pppoe_session,
                                       .peer_mac = mac_address(wan_gateway_mac)});
  session.mtu = 1492;
  return session;
}

stack::router_config pppoe_router() {
  stack::router_config config = inside();
  stack::device_config session = pppoe_device();
  session.addresses = {prefix4(public_address, 32)};
  session.peer = test::ip4(wan_gateway);
  config.routes.push_back({.to = prefix4("0.0.0.0", 0), .via = {}, .device = "ppp0"});
  config.devices.push_back(std::move(session));
  return config;
}

stack::router_config l2tp_router() {
  stack::router_config config = plain_router();
  lead_out_by(config,
              device("ppp1", stack::l2tp_link{.local = test::ip4(public_address),
                                              .remote = test::ip4(tunnel_remote),
                                              .local_port = l2tp_port,
                                              .remote_port = l2tp_port,
                                              .tunnel = tunnel_id,
                                              .peer_tunnel = 20,
                                              .session = session_id,
                                              .peer_session = 40}),
              "10.8.0.2", "10.8.0.1");
  return config;
}

stack::router_config pptp_router() {
  stack::router_config config = plain_router();
  lead_out_by(config,
              device("ppp2", stack::pptp_link{.local = test::ip4(public_address),
                                              .remote = test::ip4(tunnel_remote),
                                              .call = call_id,
                                              .peer_call = 9}),
              "10.9.0.2", "10.9.0.1");
  return config;
}

stack::router_config inside6() {
  stack::router_config config;
  config.devices = {port("lan0", lan_mac), port("wan0", wan_mac)};
  config.devices[0].addresses = {stack::ipv6_prefix{.address = ip6(lan_network6), .length = 64}};
  for (u32 host = first_host; host <= last_host; ++host) {
    config.neighbours.push_back({.device = "lan0",
                                 .address = ip6(ip6_text(wire::htonl(0xC0A80100 + host), "1")),
                                 .mac = mac_address(lan_host_mac)});
  }
  return config;
}

constexpr stack::ipv6_prefix everything6{};

stack::router_config plain_router6() {
  stack::router_config config = inside6();
  config.devices[1].addresses = {stack::ipv6_prefix{.address = ip6(wan_network6), .length = 64}};
  config.neighbours.push_back(
      {.device = "wan0", .address = ip6(wan_gateway6), .mac = mac_address(wan_gateway_mac)});
  config.routes.push_back(
      {.to = everything6, .via = stack::ip_address(ip6(wan_gateway6)), .device = "wan0"});
  return config;
}

stack::router_config pppoe_router6() {
  stack::router_config config = inside6();
  config.devices.push_back(pppoe_device());
  config.devices.back().addresses = {
      stack::ipv6_prefix{.address = ip6(wan_network6), .length = 64}};
  config.routes.push_back({.to = everything6, .via = {}, .device = "ppp0"});
  return config;
}

stack::router_config bridge_router() {
  stack::router_config config;
  config.devices = {port("lan0", lan_mac), port("wan0", wan_mac)};
  config.devices.push_back(
      device("br0", stack::bridge_link{.ports = {"lan0", "wan0"}, .mac = mac_address(bridge_mac)}));
  return config;
}

test::packet from_lan(const connection&) {
  return test::packet().eth(lan_mac, lan_host_mac);
}

test::packet from_wan(const connection&) {
  return test::packet().eth(wan_mac, wan_gateway_mac);
}

test::packet from_vlan(const connection& c) {
  return from_wan(c).vlan(vlan_id);
}

test::packet from_pppoe(const connection& c) {
  return from_wan(c).pppoe(pppoe_session);
}

test::packet from_l2tp(const connection& c) {
  return from_wan(c)
      .ipv4(tunnel_remote, public_address)
      .udp(l2tp_port, l2tp_port)
      .l2tp(wire::l2tp_flag::version, tunnel_id, session_id)
      .ppp();
}

test::packet from_pptp(const connection& c) {
  return from_wan(c).ipv4(tunnel_remote, public_address).gre(call_id, 1, 1).ppp();
}

/// As many hosts on either side as the inside has.
std::string bridged_mac(const char* side, const connection& c) {
  return fmt::format("02:{}:00:00:00:{:02x}", side, wire::ntohl(c.client) & 0xFF);
}

test::packet from_bridged_inside(const connection& c) {
  return test::packet().eth(bridged_mac("02", c), bridged_mac("01", c));
}

test::packet from_bridged_outside(const connection& c) {
  return test::packet().eth(bridged_mac("01", c), bridged_mac("02", c));
}

test::packet addressed(const lane& l, const connection& c, direction way) {
  const bool outwards = way == direction::outwards;
  test::packet result = outwards ? l.from_inside(c) : l.from_outside(c);
  const std::string client = client_of(l, c);
  const std::string server = server_of(l, c);
  const std::string& source = outwards ? client : server;
  const std::string& target = outwards ? server : client;
  return l.ipv6 ? result.ipv6(source, target) : result.ipv4(source, target);
}

std::pair<u16, u16> ports_of(const connection& c, direction way) {
  const u16 client = wire::ntohs(c.client_port);
  const u16 server = wire::ntohs(c.server_port);
  return way == direction::outwards ? std::pair(client, server) : std::pair(server, client);
}

}  // namespace

const std::vector<lane>& lanes() {
  static const std::vector<lane> all{
      {"routed", plain_router, from_lan, from_wan},
      {"bridged", bridge_router, from_bridged_inside, from_bridged_outside},
      {"vlan", vlan_router, from_lan, from_vlan},
      {"pppoe", pppoe_router, from_lan, from_pppoe},
      {"l2tp", l2tp_router, from_lan, from_l2tp},
      {"pptp", pptp_router, from_lan, from_pptp},
      {"ipv6", plain_router6, from_lan, from_wan, true},
      {"ipv6_pppoe", pppoe_router6, from_lan, from_pppoe, true},
      {"fragments", plain_router, from_lan, from_wan, false, 3},
  };
  return all;
}

test::bytes whole_datagram(const lane& l, const connection& c, direction way) {
  const auto [source, target] = ports_of(c, way);
  return addressed(l, c, way).udp(source, target).payload(payload_bytes).build();
}

std::vector<test::bytes> datagram(const lane& l, const connection& c, direction way) {
  if (l.pieces == 1) return {whole_datagram(l, c, way)};
  const auto [source, target] = ports_of(c, way);
  const u16 length = static_cast<u16>(piece_bytes * l.pieces);
  std::vector<test::bytes> frames;
  for (u16 piece = 0; piece < l.pieces; ++piece) {
    test::packet part = addressed(l, c, way);
    part.id(datagram_id).fragment(static_cast<u16>(piece * piece_bytes), piece + 1 < l.pieces);
    if (piece == 0) {
      // Only the sender of the whole datagram could sum it up.
      part.udp(source, target)
          .udp_length(length)
          .no_checksum()
          .payload(piece_bytes - sizeof(wire::udphdr));
    } else {
      part.type(wire::ip_protocol::udp).payload(piece_bytes);
    }
    frames.push_back(part.build());
  }
  return frames;
}

}  // namespace tarvelo::bench
