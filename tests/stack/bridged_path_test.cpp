// SPDX-License-Identifier: GPL-2.0-only
//
// The whole bridge, with and without the module: a frame leaves by the same port with the same
// bytes, whichever path takes it.
#include "stack/bridge.h"
#include "tests/stack/bridge_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

constexpr u8 sender = 1;
constexpr u8 receiver = 2;

class bridged_path_test : public bridge_test {
 protected:
  bridged_path_test() { start(); }
};

packet with_ipv4(packet frame) {
  return frame.ipv4("10.0.0.1", "10.0.0.2").tos(0xA0).tcp(1000, 80).payload(20);
}
packet with_ipv6(packet frame) {
  return frame.ipv6("2001:db8::1", "2001:db8::2").udp(1000, 80).payload(20);
}
packet with_session(packet frame) {
  return frame.pppoe(0x1234).ipv4("10.0.0.1", "10.0.0.2").tos(0x60).udp(1000, 80).payload(20);
}

struct content_row {
  const char* name;
  packet (*fill)(packet frame);
  u8 untagged_priority;  ///< that an untagged frame gets in its tag
  bool keeps_tag;        ///< a tagged one has its own
};

constexpr content_row contents[] = {
    {"ipv4", with_ipv4, 5, true},
    {"ipv6", with_ipv6, 0, true},
    {"pppoe", with_session, 3, false},
};

struct way_row {
  place from;
  place to;
  receive_verdict by_module;
};

constexpr way_row ways[] = {
    {{"lan0"}, {"lan1"}, receive_verdict::fast},
    {{"lan0"}, {"lan2", 20}, receive_verdict::fast},
    {{"lan2", 20}, {"lan0"}, receive_verdict::fast},
    {{"lan2", 20}, {"lan3", 30}, receive_verdict::slow},  // the port that keeps its tags
    {{"lan2", 20}, {"lan2", 21}, receive_verdict::slow},  // back out of the same interface
    {{"lan3", 30}, {"lan0"}, receive_verdict::slow},
};

TEST_F(bridged_path_test, both_paths_send_the_same_frame) {
  constexpr u8 tagged_priority = 6;
  for (const bool with_module : {false, true}) {
    if (with_module) load_module();
    for (const way_row& way : ways) {
      announce(sender, way.from);
      announce(receiver, way.to);
      for (const content_row& content : contents) {
        SCOPED_TRACE(std::string(content.name) + " from " + way.from.port + " to " + way.to.port +
                     (with_module ? ", module" : ", alone"));
        const auto frame_at = [&](const place& at, u8 priority) {
          return content.fill(
              link_header(at, host_mac_of(receiver), host_mac_of(sender), priority));
        };
        const bool keeps = way.from.vid != 0 && content.keeps_tag;
        const u8 priority = keeps ? tagged_priority : content.untagged_priority;
        EXPECT_EQ(receive_at(way.from, frame_at(way.from, tagged_priority)),
                  with_module ? way.by_module : receive_verdict::slow);
        EXPECT_FRAME_EQ(only_frame_on(way.to.port), frame_at(way.to, priority).build());
        EXPECT_EQ(ports_sent_on(), std::vector<std::string>{});
      }
    }
  }
}

TEST_F(bridged_path_test, frames_between_two_vlans_with_devices_of_their_own) {
  module.reset();
  router.reset();
  for (stack::device_config& device : config.devices) {
    if (device.name == "lan3.30") std::get<stack::vlan_link>(device.link).reorder_header = true;
  }
  start();
  load_module();
  const place from{"lan2", 20};
  const place to{"lan3", 30};
  announce(sender, from);
  announce(receiver, to);
  EXPECT_EQ(receive_at(from, between(receiver, sender, from, 5)), receive_verdict::fast);
  EXPECT_FRAME_EQ(only_frame_on("lan3"), between(receiver, sender, to, 5).build());
}

// What the bridge has learnt before the module came is its to know, too.
TEST_F(bridged_path_test, the_module_takes_over_what_the_bridge_has_learnt_and_follows_it) {
  const place lan0{"lan0"};
  const place lan1{"lan1"};
  const place vlan{"lan2", 20};
  announce(sender, lan0);
  announce(receiver, lan1);
  load_module();
  const packet frame = between(receiver, sender, lan0);
  EXPECT_EQ(receive_at(lan0, frame), receive_verdict::fast);
  EXPECT_FRAME_EQ(only_frame_on("lan1"), frame.build());

  announce(receiver, vlan);
  EXPECT_EQ(receive_at(lan0, frame), receive_verdict::fast);
  EXPECT_FRAME_EQ(only_frame_on("lan2"), between(receiver, sender, vlan).build());

  router->set_link(device("lan2"), false);
  EXPECT_EQ(receive_at(lan0, frame), receive_verdict::slow);
  EXPECT_EQ(ports_sent_on(), (std::vector<std::string>{"lan1", "lan3"}));

  module.reset();
  announce(receiver, lan1);
  EXPECT_EQ(receive_at(lan0, frame), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan1"), frame.build());
}

TEST_F(bridged_path_test, hosts_that_only_the_fast_path_hears_stay_known) {
  const place lan0{"lan0"};
  announce(sender, lan0);
  announce(receiver, {"lan1"});
  load_module();
  for (u32 rounds = 0; rounds < 8; ++rounds) {
    pass(stack::bridge_ageing_time / 4);
    EXPECT_EQ(receive_at(lan0, between(receiver, sender, lan0)), receive_verdict::fast) << rounds;
    EXPECT_EQ(receive("lan1", between(sender, receiver, {"lan1"})), receive_verdict::fast);
  }
}

TEST_F(bridged_path_test, frames_longer_than_the_port_takes_are_not_bridged) {
  router.reset();
  for (stack::device_config& device : config.devices) {
    if (device.name == "lan1") device.mtu = 100;
  }
  start();
  announce(sender, {"lan0"});
  announce(receiver, {"lan1"});
  const auto frame_of = [](std::size_t payload) {
    return link_header({"lan0"}, host_mac_of(receiver), host_mac_of(sender))
        .ipv4("10.0.0.1", "10.0.0.2")
        .udp(1, 2)
        .payload(payload);
  };
  EXPECT_EQ(receive("lan0", frame_of(72)), receive_verdict::slow);
  EXPECT_EQ(receive("lan0", frame_of(73)), receive_verdict::dropped);
  load_module();
  EXPECT_EQ(receive("lan0", frame_of(72)), receive_verdict::fast);
  EXPECT_EQ(receive("lan0", frame_of(73)), receive_verdict::dropped);
}

}  // namespace
}  // namespace tarvelo::test
