// SPDX-License-Identifier: GPL-2.0-only
#include <fmt/format.h>

#include <algorithm>

#include "app/address_text.h"
#include "app/config.h"

namespace tarvelo::app {

namespace {

constexpr u32 vlan_id_least = 1;  ///< 0 marks a priority tag, 4095 is reserved
constexpr u32 vlan_id_most = 4094;
constexpr u32 mtu_least = 68;  ///< what every IPv4 network carries
constexpr u32 mtu_most = 65535;
constexpr u32 mtu_default = 1500;
constexpr u32 word_most = 65535;
constexpr u32 pppoe_session_most = 65534;  ///< 65535 is reserved: no session
constexpr u16 l2tp_port = 1701;
constexpr std::size_t name_most = 15;  ///< characters

constexpr const char* mac_form = "write six bytes as in 02:00:00:00:01:01";
constexpr const char* protocol_form = "write \"tcp\" or \"udp\"";
constexpr const char* address_form = "write an address as in 192.168.1.1 or 2001:db8::1";

bool is_good_name(const std::string& name) {
  const auto good = [](unsigned char c) {
    return c > ' ' && c < 0x7F && c != '/' && c != '"' && c != '\\';
  };
  return !name.empty() && name.size() <= name_most && name != "." && name != ".." &&
         std::all_of(name.begin(), name.end(), good);
}

std::string read_name(table_reader& in, std::string_view key) {
  std::string name = in.string(key, "name it");
  if (!is_good_name(name)) {
    in.fail(key, fmt::format("\"{}\" is not a name", name),
            fmt::format("write 1 to {} characters without blanks, quotes and slashes", name_most));
  }
  return name;
}

stack::mac_address read_mac(table_reader& in, std::string_view key) {
  const std::string text = in.string(key, mac_form);
  const auto mac = parse_mac(text);
  if (!mac) in.fail(key, fmt::format("\"{}\" is not a MAC address", text), mac_form);
  if ((mac->bytes[0] & wire::mac_group_bit) != 0) {
    in.fail(key, fmt::format("{} is a group's address", text), "make the first byte even");
  }
  if (*mac == stack::mac_address{}) in.fail(key, "the MAC address is zero", mac_form);
  return *mac;
}

u32 read_ipv4(table_reader& in, std::string_view key) {
  constexpr const char* form = "write an IPv4 address as in 203.0.113.9";
  const std::string text = in.string(key, form);
  const auto address = parse_ipv4(text);
  if (!address) in.fail(key, fmt::format("\"{}\" is not an IPv4 address", text), form);
  return *address;
}

stack::ip_address to_address(table_reader& in, std::string_view key, const std::string& text) {
  const auto address = parse_address(text);
  if (!address) in.fail(key, fmt::format("\"{}\" is not an address", text), address_form);
  return *address;
}

u16 read_word(table_reader& in, std::string_view key) {
  return static_cast<u16>(in.number(key, 1, word_most));
}

u8 read_protocol(table_reader& in, std::string_view key) {
  const std::string text = in.string(key, protocol_form);
  if (text == "tcp") return wire::ip_protocol::tcp;
  if (text == "udp") return wire::ip_protocol::udp;
  in.fail(key, fmt::format("no such protocol \"{}\"", text), protocol_form);
}

stack::link_config read_port(table_reader& in, const std::string& name) {
  stack::port_link link{};
  const bool given = in.find("interface") != nullptr;
  link.interface = given ? read_name(in, "interface") : name;
  link.mac = read_mac(in, "mac");
  return link;
}

stack::link_config read_vlan(table_reader& in, const std::string&) {
  stack::vlan_link link{};
  link.parent = in.string("parent", "name the device that carries the VLAN");
  link.id = static_cast<u16>(in.number("id", vlan_id_least, vlan_id_most));
  link.reorder_header = in.truth_or("reorder_header", true);
  return link;
}

stack::link_config read_bridge(table_reader& in, const std::string&) {
  stack::bridge_link link{};
  link.ports = in.strings("ports");
  if (link.ports.empty()) in.fail("ports", "a bridge without ports", "name its ports");
  link.mac = read_mac(in, "mac");
  return link;
}

stack::link_config read_pppoe(table_reader& in, const std::string&) {
  stack::pppoe_link link{};
  link.parent = in.string("parent", "name the device that carries the session");
  link.session = static_cast<u16>(in.number("session", 1, pppoe_session_most));
  link.peer_mac = read_mac(in, "peer_mac");
  return link;
}

stack::link_config read_l2tp(table_reader& in, const std::string&) {
  stack::l2tp_link link{};
  link.local = read_ipv4(in, "local");
  link.remote = read_ipv4(in, "remote");
  link.local_port = static_cast<u16>(in.number_or("local_port", l2tp_port, 1, word_most));
  link.remote_port = static_cast<u16>(in.number_or("remote_port", l2tp_port, 1, word_most));
  link.tunnel = read_word(in, "tunnel");
  link.peer_tunnel = read_word(in, "peer_tunnel");
  link.session = read_word(in, "session");
  link.peer_session = read_word(in, "peer_session");
  link.send_seq = in.truth_or("send_seq", false);
  return link;
}

stack::link_config read_pptp(table_reader& in, const std::string&) {
  stack::pptp_link link{};
  link.local = read_ipv4(in, "local");
  link.remote = read_ipv4(in, "remote");
  link.call = read_word(in, "call");
  link.peer_call = read_word(in, "peer_call");
  link.compress_protocol = in.truth_or("compress_protocol", false);
  link.omit_address_control = in.truth_or("omit_address_control", false);
  return link;
}

stack::link_config read_rawip(table_reader& in, const std::string& name) {
  const bool given = in.find("interface") != nullptr;
  return stack::rawip_link{given ? read_name(in, "interface") : name};
}

struct device_kind {
  const char* type;
  stack::link_config (*read)(table_reader& in, const std::string& name);
  bool point_to_point;
};

constexpr device_kind device_kinds[] = {
    {"port", read_port, false},  {"vlan", read_vlan, false}, {"bridge", read_bridge, false},
    {"pppoe", read_pppoe, true}, {"l2tp", read_l2tp, true},  {"pptp", read_pptp, true},
    {"rawip", read_rawip, true},
};

const device_kind& read_kind(table_reader& in) {
  constexpr const char* form = "write one of port, vlan, bridge, pppoe, l2tp, pptp, rawip";
  const std::string type = in.string("type", form);
  for (const device_kind& kind : device_kinds) {
    if (type == kind.type) return kind;
  }
  in.fail("type", fmt::format("no such type of device \"{}\"", type), form);
}

void read_addresses(table_reader& in, stack::device_config& device) {
  const std::vector<std::string> texts = in.strings("address");
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const auto prefix = parse_prefix(texts[i]);
    if (!prefix) {
      in.fail("address", fmt::format("\"{}\" is not an address with its length", texts[i]),
              "write it as in 192.168.1.1/24 or 2001:db8:1::1/64", i);
    }
    device.addresses.push_back(*prefix);
  }
}

stack::device_config read_device(table_reader& in) {
  stack::device_config device{};
  device.name = read_name(in, "name");
  const device_kind& kind = read_kind(in);
  device.link = kind.read(in, device.name);
  device.mtu = in.number_or("mtu", mtu_default, mtu_least, mtu_most);
  read_addresses(in, device);
  if (kind.point_to_point) {
    if (const auto peer = in.optional_string("peer")) device.peer = to_address(in, "peer", *peer);
  }
  return device;
}

stack::route_config read_route(table_reader& in) {
  constexpr const char* form = "write a prefix as in 0.0.0.0/0 or 2001:db8::/32";
  stack::route_config route{};
  const std::string to = in.string("to", form);
  const auto prefix = parse_prefix(to);
  if (!prefix) in.fail("to", fmt::format("\"{}\" is not a prefix", to), form);
  route.to = *prefix;
  if (const auto via = in.optional_string("via")) route.via = to_address(in, "via", *via);
  route.device = in.string("device", "name the device that the route leaves by");
  return route;
}

stack::neighbour_config read_neighbour(table_reader& in) {
  stack::neighbour_config neighbour{};
  neighbour.device = in.string("device", "name the device that the neighbour is behind");
  neighbour.address = to_address(in, "address", in.string("address", address_form));
  neighbour.mac = read_mac(in, "mac");
  return neighbour;
}

stack::forward_config read_forward(table_reader& in) {
  constexpr const char* form = "write an IPv4 address and a port as in 192.168.1.2:80";
  stack::forward_config forward{};
  forward.device = in.string("device", "name the device whose address is forwarded");
  forward.protocol = read_protocol(in, "protocol");
  forward.port = read_word(in, "port");
  const std::string to = in.string("to", form);
  const auto end = parse_endpoint(to);
  if (!end) in.fail("to", fmt::format("\"{}\" is not a place to forward to", to), form);
  forward.to_address = end->address;
  forward.to_port = end->port;
  return forward;
}

stack::port_match read_match(table_reader& in) {
  const u8 protocol = read_protocol(in, "protocol");
  return {protocol, read_word(in, "port")};
}

stack::helper_config read_helper(table_reader& in) {
  const stack::port_match match = read_match(in);
  return {match, read_name(in, "name")};
}

/// Reads each table of an array of tables, with its places beside it.
template <typename Item>
void read_each(table_reader& parent, const std::string& file, std::string_view key,
               Item (*read)(table_reader&), std::vector<Item>& items,
               std::vector<item_places>& places) {
  for (const document_value* value : parent.tables(key)) {
    table_reader in(file, parent.full_name(key), value->at, std::get<document_table>(value->value));
    items.push_back(read(in));
    in.finish();
    places.push_back(in.places());
  }
}

void read_nat(table_reader& top, app_config& config) {
  const document_table* table = top.table("nat");
  if (table == nullptr) return;
  table_reader in(config.file, "nat", top.places().of("nat"), *table);
  config.router.masquerade = in.strings("masquerade");
  read_each(in, config.file, "forward", read_forward, config.router.forwards,
            config.places.forwards);
  in.finish();
  config.places.nat = in.places();
}

void read_control(table_reader& top, app_config& config) {
  const document_table* table = top.table("control");
  if (table == nullptr) return;
  table_reader in(config.file, "control", top.places().of("control"), *table);
  if (const auto mount = in.optional_string("mount")) {
    if (mount->size() < 2 || mount->front() != '/') {
      in.fail("mount", fmt::format("\"{}\" is not an absolute path", *mount),
              "write it as in /run/tarvelo/proc");
    }
    config.control.mount = *mount;
  }
  config.control.fast_path = in.truth_or("fast_path", true);
  in.finish();
  config.places.control = in.places();
}

}  // namespace

app_config read_config(const std::string& file) {
  const document_table document = read_document(file);
  app_config config;
  config.file = file;
  table_reader top(config.file, "", {1, 1}, document);
  stack::router_config& router = config.router;
  config_places& places = config.places;
  read_each(top, file, "device", read_device, router.devices, places.devices);
  read_each(top, file, "route", read_route, router.routes, places.routes);
  read_each(top, file, "neighbour", read_neighbour, router.neighbours, places.neighbours);
  read_nat(top, config);
  read_each(top, file, "helper", read_helper, router.helpers, places.helpers);
  read_each(top, file, "slow", read_match, router.slow, places.slow);
  read_control(top, config);
  top.finish();
  if (router.devices.empty()) {
    throw input_error(
        fmt::format("{}no device (device); describe at least one [[device]]", describe(file, {})));
  }
  return config;
}

}  // namespace tarvelo::app
