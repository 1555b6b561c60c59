// SPDX-License-Identifier: GPL-2.0-only
//
// Several processors bridge, route, learn and move hosts at once while a link goes up and down and
// hosts age. What is checked is that nothing breaks on the way (the checked kernel and the
// sanitizers say so) and that the bridge still works afterwards.
#include <thread>

#include "stack/bridge.h"
#include "tests/stack/bridge_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

constexpr u32 rounds = 400;
constexpr place lan0{"lan0"};
constexpr place lan1{"lan1"};
constexpr place vlan{"lan2", 20};
constexpr place uplink{"wan0", 7};

/// One that no two processors meet in.
const net_device_ops* forgetting_ops() {
  static const net_device_ops operations{.ndo_start_xmit = [](sk_buff* skb, net_device*) {
    kfree_skb(skb);
    return NETDEV_TX_OK;
  }};
  return &operations;
}

struct fed_frame {
  const char* port;
  bytes frame;
};

class bridge_threads_test : public bridge_test {
 protected:
  bridge_threads_test() {
    router = std::make_unique<stack::router>(config, forgetting_ops());
    load_module();
  }

  static fed_frame from(u8 number, const place& at) {
    const std::string mac = host_mac_of(number);
    return {at.port, link_header(at, everyone_mac, mac)
                         .arp(wire::arp_op::request, mac, host_address(number), "00:00:00:00:00:00",
                              host_address(number))
                         .build()};
  }
  static fed_frame bridged(u8 to, u8 sender, const place& at) {
    return {at.port, between(to, sender, at).build()};
  }
  static fed_frame outward(u8 sender, const place& at) {
    return {at.port, link_header(at, bridge_mac, host_mac_of(sender))
                         .ipv4(host_address(sender), server)
                         .udp(4000, 53)
                         .payload(20)
                         .build()};
  }
  static fed_frame inward(u8 to) {
    return {uplink.port, link_header(uplink, wan_mac, gateway_mac)
                             .ipv4(server, host_address(to))
                             .udp(53, 4000)
                             .payload(20)
                             .build()};
  }

  std::thread feed(unsigned processor, std::vector<fed_frame> frames) {
    return std::thread([this, processor, frames = std::move(frames)] {
      hosted::set_processor(processor);
      for (u32 i = 0; i < rounds; ++i) {
        for (const fed_frame& one : frames)
          static_cast<void>(receive(one.port, one.frame));
      }
    });
  }
};

TEST_F(bridge_threads_test, processors_bridge_and_route_while_hosts_move_and_links_change) {
  std::vector<std::thread> processors;
  processors.push_back(feed(1, {from(1, lan0), bridged(2, 1, lan0), bridged(3, 1, lan0),
                                outward(1, lan0), from(3, lan0)}));
  processors.push_back(feed(2, {from(2, lan1), bridged(1, 2, lan1), bridged(3, 2, lan1),
                                outward(2, lan1), from(3, lan1)}));
  processors.push_back(feed(3, {from(3, vlan), bridged(1, 3, vlan), outward(3, vlan)}));
  processors.push_back(feed(4, {inward(1), inward(2), inward(3)}));
  for (u32 i = 0; i < rounds / 10; ++i) {
    router->set_link(device("lan2"), i % 2 == 1);
    pass(stack::bridge_ageing_step);
  }
  for (std::thread& processor : processors)
    processor.join();

  announce(1, lan0);
  announce(2, lan1);
  EXPECT_EQ(receive("lan0", between(2, 1, lan0)), receive_verdict::fast);
}

}  // namespace
}  // namespace tarvelo::test
