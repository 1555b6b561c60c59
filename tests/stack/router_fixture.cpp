// SPDX-License-Identifier: GPL-2.0-only
#include "tests/stack/router_fixture.h"

#include <cstring>
#include <map>
#include <utility>

namespace tarvelo::test {

namespace {

std::map<std::string, std::vector<bytes>>& recorded() {
  static std::map<std::string, std::vector<bytes>> frames;
  return frames;
}

int record(sk_buff* skb, net_device* dev) {
  recorded()[dev->name].push_back(bytes_of(skb));
  kfree_skb(skb);
  return NETDEV_TX_OK;
}

stack::device_config port(const char* name, std::string_view mac, stack::ipv4_prefix address) {
  stack::device_config config;
  config.name = name;
  config.link = stack::port_link{name, config_mac(mac)};
  config.addresses = {address};
  return config;
}

stack::device_config tunnel() {
  stack::device_config config;
  config.name = "tun0";
  config.link = stack::rawip_link{"tun0"};
  config.addresses = {prefix_of(tunnel_address, 32)};
  config.peer = ip4(tunnel_peer);
  return config;
}

}  // namespace

stack::ipv4_prefix prefix_of(std::string_view address, u8 length) {
  return {ip4(address), length};
}

stack::mac_address config_mac(std::string_view text) {
  stack::mac_address address;
  std::memcpy(address.bytes, mac_of(text).at, sizeof address.bytes);
  return address;
}

stack::router_config three_device_config() {
  stack::router_config config;
  config.devices = {port("lan0", lan_mac, prefix_of(lan_address, 24)),
                    port("wan0", wan_mac, prefix_of(wan_address, 24)), tunnel()};
  config.routes = {{prefix_of("0.0.0.0", 0), ip4(gateway), "wan0"}};
  config.neighbours = {{"lan0", ip4(host), config_mac(host_mac)},
                       {"wan0", ip4(gateway), config_mac(gateway_mac)}};
  return config;
}

const net_device_ops* recording_ops() {
  static const net_device_ops operations{.ndo_start_xmit = &record};
  return &operations;
}

std::vector<bytes> sent_on(const std::string& device) {
  return std::exchange(recorded()[device], {});
}

router_test::router_test() {
  recorded().clear();
}

void router_test::start() {
  router = std::make_unique<stack::router>(config, recording_ops());
}

stack::receive_verdict router_test::receive(const char* device, const bytes& frame) {
  sk_buff* skb = make_skb(frame, this->device(device));
  skb->rx_dev = nullptr;
  return in_softirq([&] { return router->receive(skb); });
}

bytes router_test::only_frame_on(const char* device) {
  const std::vector<bytes> frames = sent_on(device);
  EXPECT_EQ(frames.size(), 1U) << "frames sent on " << device;
  return frames.size() == 1 ? frames.front() : bytes{};
}

packet router_test::from_host(std::string_view to) {
  return packet().eth(lan_mac, host_mac).ipv4(host, to);
}

packet router_test::from_gateway(std::string_view source, std::string_view to) {
  return packet().eth(wan_mac, gateway_mac).ipv4(source, to);
}

}  // namespace tarvelo::test
