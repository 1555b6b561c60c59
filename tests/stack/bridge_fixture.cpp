// SPDX-License-Identifier: GPL-2.0-only
#include "tests/stack/bridge_fixture.h"

#include <fmt/format.h>

#include "module/core/init.h"

namespace tarvelo::test {

namespace {

stack::device_config device_of(const char* name, stack::link_config link) {
  stack::device_config config;
  config.name = name;
  config.link = std::move(link);
  return config;
}

stack::device_config port_of(const char* name, u8 number) {
  return device_of(
      name, stack::port_link{name, config_mac(fmt::format("02:00:00:00:01:{:02x}", number))});
}

/// Listed from the top down: the router finds the order by itself.
stack::router_config bridge_config() {
  stack::router_config config;
  const std::vector<std::string> ports = {"lan0", "lan1", "lan2.20", "lan2.21", "lan3.30"};
  stack::device_config br0 = device_of("br0", stack::bridge_link{ports, config_mac(bridge_mac)});
  br0.addresses = {prefix_of(lan_address, 24)};
  stack::device_config uplink = device_of("wan0.7", stack::vlan_link{"wan0", 7});
  uplink.addresses = {prefix_of(wan_address, 24)};
  config.devices = {br0,
                    uplink,
                    device_of("lan2.20", stack::vlan_link{"lan2", 20}),
                    device_of("lan2.21", stack::vlan_link{"lan2", 21}),
                    device_of("lan3.30", stack::vlan_link{"lan3", 30, false}),
                    port_of("lan0", 0x10),
                    port_of("lan1", 0x11),
                    port_of("lan2", 0x12),
                    port_of("lan3", 0x13),
                    device_of("wan0", stack::port_link{"wan0", config_mac(wan_mac)})};
  config.routes = {{prefix_of("0.0.0.0", 0), ip4(gateway), "wan0.7"}};
  config.neighbours = {{"wan0.7", ip4(gateway), config_mac(gateway_mac)}};
  return config;
}

}  // namespace

std::string host_mac_of(u8 number) {
  return fmt::format("02:00:00:00:0a:{:02x}", number);
}

std::string host_address(u8 number) {
  return fmt::format("192.168.1.{}", number);
}

packet link_header(const place& at, std::string_view to, std::string_view from, u8 priority) {
  packet frame;
  frame.eth(to, from);
  if (at.vid != 0) frame.vlan(at.vid, priority);
  return frame;
}

bridge_test::bridge_test() {
  config = bridge_config();
}

void bridge_test::announce(u8 number, const place& at) {
  const std::string mac = host_mac_of(number);
  receive_at(at, link_header(at, everyone_mac, mac)
                     .arp(wire::arp_op::request, mac, host_address(number), "00:00:00:00:00:00",
                          host_address(number)));
  static_cast<void>(ports_sent_on());
}

packet bridge_test::between(u8 to, u8 from, const place& at, u8 priority) {
  return link_header(at, host_mac_of(to), host_mac_of(from), priority)
      .ipv4(host_address(from), host_address(to))
      .udp(1000, 2000)
      .payload(30);
}

std::vector<std::string> bridge_test::ports_sent_on() {
  std::vector<std::string> ports;
  for (const char* port : {"lan0", "lan1", "lan2", "lan3", "wan0"}) {
    for (std::size_t frames = sent_on(port).size(); frames != 0; --frames)
      ports.emplace_back(port);
  }
  return ports;
}

void bridge_test::load_module() {
  std::string error;
  module = loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
  ASSERT_NE(module, nullptr) << error;
}

}  // namespace tarvelo::test
