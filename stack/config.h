// SPDX-License-Identifier: GPL-2.0-only
//
// What a router is made of, as plain data. The command reads it from a file and has checked it:
// names are unique and refer to what is there, addresses do not clash, ids are in range. Addresses
// are in network byte order, ports and ids in host order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kernel/types.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/ip.h"

namespace tarvelo::stack {

struct mac_address {
  u8 bytes[wire::mac_length];

  friend bool operator==(const mac_address&, const mac_address&) = default;
};

struct ipv4_prefix {
  u32 address;  ///< network order; a device's own address keeps its host bits
  u8 length;
};

struct ipv6_prefix {
  wire::in6_addr address;
  u8 length;
};

using ip_prefix = std::variant<ipv4_prefix, ipv6_prefix>;
using ip_address = std::variant<u32, wire::in6_addr>;

/// An Ethernet interface that the router owns.
struct port_link {
  std::string interface;  ///< the host's interface; the device's name when not given
  mac_address mac;
};

struct vlan_link {
  std::string parent;
  u16 id;
  bool reorder_header = true;
};

struct bridge_link {
  std::vector<std::string> ports;
  mac_address mac;
};

struct pppoe_link {
  std::string parent;
  u16 session;
  mac_address peer_mac;
};

struct l2tp_link {
  u32 local;
  u32 remote;
  u16 local_port;
  u16 remote_port;
  u16 tunnel;
  u16 peer_tunnel;
  u16 session;
  u16 peer_session;
  bool send_seq = false;
};

struct pptp_link {
  u32 local;
  u32 remote;
  u16 call;
  u16 peer_call;
  bool compress_protocol = false;
  bool omit_address_control = false;
};

/// A point-to-point device without Ethernet header.
struct rawip_link {
  std::string interface;  ///< as for a port
};

using link_config =
    std::variant<port_link, vlan_link, bridge_link, pppoe_link, l2tp_link, pptp_link, rawip_link>;

struct device_config {
  std::string name;
  link_config link;
  u32 mtu = 1500;
  std::vector<ip_prefix> addresses;
  std::optional<ip_address> peer;  ///< the other end of a point-to-point device
};

struct route_config {
  ip_prefix to;
  std::optional<ip_address> via;  ///< none: on-link
  std::string device;
};

struct neighbour_config {
  std::string device;
  ip_address address;
  mac_address mac;
};

/// Destination NAT of what arrives for the device's address.
struct forward_config {
  std::string device;
  u8 protocol;  ///< wire::ip_protocol::tcp or udp
  u16 port;
  u32 to_address;
  u16 to_port;
};

/// Connections by protocol and the destination port of their first packet.
struct port_match {
  u8 protocol;
  u16 port;
};

struct helper_config {
  port_match match;
  std::string name;
};

/// Upper bounds of the stack's tables. When one is full the newcomer is refused and counted.
struct limits {
  u32 connections = 262144;
  u32 neighbours = 8192;
  u32 bridge_hosts = 8192;         ///< behind each bridge
  u32 packets_per_neighbour = 16;  ///< waiting for its address
  u32 datagrams_in_reassembly = 1024;
  u32 reassembly_bytes = 4 * 1024 * 1024;
};

struct router_config {
  std::vector<device_config> devices;
  std::vector<route_config> routes;
  std::vector<neighbour_config> neighbours;
  std::vector<std::string> masquerade;
  std::vector<forward_config> forwards;
  std::vector<helper_config> helpers;
  std::vector<port_match> slow;
  limits table_limits;
};

}  // namespace tarvelo::stack
