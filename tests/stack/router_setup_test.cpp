// SPDX-License-Identifier: GPL-2.0-only
//
// A router is built whole or not at all, and takes links going up and down.
#include "kernel/route.h"
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;
using stack::setup_error;

constexpr const char* bridge_mac = "02:00:00:00:03:01";

class router_setup_test : public router_test {
 protected:
  /// What the constructor says against `config`; empty when it says nothing.
  std::string refusal() {
    try {
      start();
    } catch (const setup_error& error) {
      return error.what();
    }
    router.reset();
    return {};
  }
};

TEST_F(router_setup_test, refuses_what_cannot_be_built_and_names_the_device) {
  const auto with_device = [](const char* name, stack::link_config link) {
    stack::router_config changed = three_device_config();
    stack::device_config device;
    device.name = name;
    device.link = std::move(link);
    changed.devices.push_back(device);
    return changed;
  };
  stack::router_config vlan_twice = with_device("wan0.7", stack::vlan_link{"wan0", 7});
  vlan_twice.devices.push_back(vlan_twice.devices.back());
  vlan_twice.devices.back().name = "again";
  stack::router_config ipv6_route = three_device_config();
  ipv6_route.routes.push_back({stack::ipv6_prefix{ip6("2001:db8::1"), 32}, std::nullopt, "lan0"});
  stack::router_config mixed_route = three_device_config();
  mixed_route.routes.push_back({stack::ipv6_prefix{ip6("2001:db8::"), 32}, ip4(gateway), "lan0"});
  stack::router_config twice = three_device_config();
  twice.routes.push_back({prefix_of("192.168.1.0", 24), ip4(gateway), "wan0"});
  stack::router_config crooked = three_device_config();
  crooked.routes.push_back({prefix_of("10.0.0.1", 8), ip4(gateway), "wan0"});

  const struct {
    stack::router_config bad;
    const char* text;
  } rows[] = {
      {with_device("wan0.7", stack::vlan_link{"wan1", 7}),
       "device \"wan0.7\": there is no device \"wan1\""},
      {with_device("br0.7", stack::vlan_link{"br0.7", 7}),
       "device \"br0.7\": it is stacked on itself"},
      {with_device("wan0.7", stack::vlan_link{"wan0", 4095}),
       "device \"wan0.7\": there is no VLAN 4095"},
      {vlan_twice, "device \"again\": VLAN 7 is taken"},
      {with_device("br0", stack::bridge_link{{"lan0", "lan0"}, config_mac(bridge_mac)}),
       "device \"br0\": \"lan0\" is a port of a bridge already"},
      {with_device("br0", stack::bridge_link{{"tun0"}, config_mac(bridge_mac)}),
       "device \"br0\": \"tun0\" cannot be a port of a bridge"},
      {ipv6_route, "device \"lan0\": route to 2001:db8:0:0:0:0:0:1/32 has bits below its prefix"},
      {mixed_route, "device \"lan0\": a route and its gateway are of different families"},
      {twice, "device \"wan0\": there is another route to 192.168.1.0/24"},
      {crooked, "device \"wan0\": route to 10.0.0.1/8 has bits below its prefix"},
  };
  for (const auto& row : rows) {
    config = row.bad;
    EXPECT_EQ(refusal(), row.text);
  }
  config = three_device_config();
  EXPECT_EQ(refusal(), "") << "nothing of the refused ones is left";
}

TEST_F(router_setup_test, several_addresses_in_one_subnet_share_its_route) {
  config.devices[0].addresses.push_back(prefix_of("192.168.1.254", 24));
  config.devices[0].addresses.push_back(stack::ipv6_prefix{ip6("2001:db8:1::1"), 64});
  start();
  EXPECT_EQ(receive("lan0", from_host("192.168.1.254").icmp(8, 0, 1, 1)), receive_verdict::slow);
  EXPECT_EQ(sent_on("lan0").size(), 1U);
}

TEST_F(router_setup_test, a_link_that_is_down_carries_nothing_until_it_is_up_again) {
  start();
  const packet frame = from_host().udp(4000, 53).payload(8);
  router->set_link(device("wan0"), false);
  EXPECT_EQ(receive("lan0", frame), receive_verdict::slow);
  EXPECT_TRUE(sent_on("wan0").empty());
  const bytes error = only_frame_on("lan0");
  ASSERT_TRUE(sound_frame(error));
  EXPECT_EQ(icmp_of(error).type, 3);
  EXPECT_EQ(icmp_of(error).code, 1);

  router->set_link(device("wan0"), true);
  EXPECT_EQ(receive("lan0", frame), receive_verdict::slow);
  EXPECT_EQ(mac_text(eth_of(only_frame_on("wan0")).h_dest), gateway_mac)
      << "the configured neighbour is still there";
}

// The neighbours learnt on a link, and what waits for them, go with it.
TEST_F(router_setup_test, what_was_learnt_on_a_link_goes_with_it) {
  start();
  receive("wan0", from_gateway(server, "192.168.1.9").udp(1, 2).payload(8));
  EXPECT_EQ(sent_on("lan0").size(), 1U);
  router->set_link(device("lan0"), false);
  router->set_link(device("lan0"), true);
  pass(10000);
  EXPECT_TRUE(sent_on("lan0").empty());
  EXPECT_TRUE(sent_on("wan0").empty());
}

TEST_F(router_setup_test, what_waits_is_returned_when_the_router_ends) {
  start();
  receive("wan0", from_gateway(server, "192.168.1.9").udp(1, 2).payload(8));
  receive("lan0", from_host().type(17).fragment(0, true).payload(40));
  router.reset();  // the fixture counts the buffers
}

}  // namespace
}  // namespace tarvelo::test
