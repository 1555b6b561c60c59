// SPDX-License-Identifier: GPL-2.0-only
//
// Connections between hosts behind the bridge and a VLAN uplink, first on the slow path and then on
// the fast one: same frames but for the time to live, one count for each on the VLAN device, and a
// host that moves takes its connections along.
#include "tests/stack/bridge_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

constexpr u8 client = 2;
constexpr place uplink{"wan0", 7};
constexpr u8 sent_ttl = 64;
/// The fast path takes a connection whose beginning tracking has seen.
constexpr unsigned rounds_to_ripen = 25;

struct exchange {
  packet offered;
  packet slow;  ///< as it leaves by the slow path
  packet fast;
};

class vlan_route_test : public bridge_test {
 protected:
  vlan_route_test() {
    config.neighbours.push_back(
        {"br0", ip4(host_address(client)), config_mac(host_mac_of(client))});
    start();
  }

  exchange outward(const place& at) {
    constexpr u8 tos = 0x60;
    constexpr u8 priority = tos >> 5;
    const auto filled = [&](packet frame, u8 ttl) {
      return frame.ipv4(host_address(client), server)
          .tos(tos)
          .ttl(ttl)
          .udp(client_port, 53)
          .payload(40);
    };
    const packet in = link_header(at, bridge_mac, host_mac_of(client), priority);
    const packet out = link_header(uplink, gateway_mac, wan_mac, priority);
    return {filled(in, sent_ttl), filled(out, sent_ttl - 1), filled(out, sent_ttl)};
  }
  exchange inward(const place& at) {
    constexpr u8 priority = 2;
    const auto filled = [&](packet frame, u8 ttl) {
      return frame.ipv4(server, host_address(client)).ttl(ttl).udp(53, client_port).payload(60);
    };
    const packet in = link_header(uplink, wan_mac, gateway_mac, priority);
    const packet out = link_header(at, host_mac_of(client), bridge_mac, priority);
    return {filled(in, sent_ttl), filled(out, sent_ttl - 1), filled(out, sent_ttl)};
  }

  u16 client_port = 4000;

  /// Sends both ways, the client being at `at`, until the connection is on the fast path in both.
  void carry_to_fast_path(const place& at) {
    for (unsigned i = 0; i < rounds_to_ripen; ++i) {
      receive_at(at, outward(at).offered);
      receive_at(uplink, inward(at).offered);
    }
    static_cast<void>(ports_sent_on());
  }
  void expect_fast(const place& at) {
    EXPECT_EQ(receive_at(at, outward(at).offered), receive_verdict::fast);
    EXPECT_FRAME_EQ(only_frame_on("wan0"), outward(at).fast.build());
    EXPECT_EQ(receive_at(uplink, inward(at).offered), receive_verdict::fast);
    EXPECT_FRAME_EQ(only_frame_on(at.port), inward(at).fast.build());
    EXPECT_EQ(ports_sent_on(), std::vector<std::string>{});
  }
};

constexpr place places[] = {{"lan0"}, {"lan2", 20}};

TEST_F(vlan_route_test, both_paths_send_the_same_frames) {
  for (const place& at : places) {
    SCOPED_TRACE(at.port);
    announce(client, at);
    EXPECT_EQ(receive_at(at, outward(at).offered), receive_verdict::slow);
    EXPECT_FRAME_EQ(only_frame_on("wan0"), outward(at).slow.build());
    EXPECT_EQ(receive_at(uplink, inward(at).offered), receive_verdict::slow);
    EXPECT_FRAME_EQ(only_frame_on(at.port), inward(at).slow.build());
  }
  load_module();
  client_port = 4001;  // connections made before the module came stay slow
  for (const place& at : places) {
    SCOPED_TRACE(at.port);
    announce(client, at);
    carry_to_fast_path(at);
    expect_fast(at);
  }
}

TEST_F(vlan_route_test, a_vlan_device_counts_each_frame_once_whichever_path_it_takes) {
  constexpr u64 tag = 4;
  constexpr u64 frames = rounds_to_ripen + 1;
  load_module();
  const place at{"lan0"};
  announce(client, at);
  carry_to_fast_path(at);
  expect_fast(at);
  const rtnl_link_stats64 counted = dev_stats(device("wan0.7"));
  EXPECT_EQ(counted.tx_packets, frames);
  EXPECT_EQ(counted.tx_bytes, frames * (outward(at).slow.build().size() - tag));
  EXPECT_EQ(counted.rx_packets, frames);
  EXPECT_EQ(counted.rx_bytes, frames * (inward(at).offered.build().size() - tag));
  EXPECT_EQ(dev_stats(device("wan0")).tx_packets, frames);
  EXPECT_EQ(dev_stats(device("wan0")).rx_packets, frames);
}

TEST_F(vlan_route_test, a_connection_follows_its_host_to_another_port) {
  load_module();
  const place before{"lan0"};
  const place after{"lan2", 20};
  announce(client, before);
  carry_to_fast_path(before);
  expect_fast(before);

  // The first frame from the new place tells the bridge, whatever it is.
  EXPECT_EQ(receive_at(after, outward(after).offered), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("wan0"), outward(after).slow.build());
  EXPECT_EQ(receive_at(uplink, inward(after).offered), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan2"), inward(after).slow.build());
  expect_fast(after);
}

TEST_F(vlan_route_test, a_vlan_device_goes_down_and_comes_back_with_its_port) {
  load_module();
  const place at{"lan0"};
  announce(client, at);
  carry_to_fast_path(at);
  router->set_link(device("wan0"), false);
  EXPECT_EQ(receive_at(at, outward(at).offered), receive_verdict::slow);
  EXPECT_EQ(icmp_of(only_frame_on("lan0")).type, 3);
  router->set_link(device("wan0"), true);
  EXPECT_EQ(receive_at(at, outward(at).offered), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("wan0"), outward(at).slow.build());
}

TEST_F(vlan_route_test, a_frame_in_a_vlan_without_a_device_reaches_no_one) {
  const place other{"wan0", 8};
  EXPECT_EQ(receive_at(other, link_header(other, wan_mac, gateway_mac)
                                  .ipv4(server, host_address(client))
                                  .udp(53, 4000)),
            receive_verdict::dropped);
  EXPECT_EQ(receive("wan0", packet().eth(wan_mac, gateway_mac).vlan(7).truncate(17)),
            receive_verdict::dropped);
  EXPECT_EQ(receive("wan0", from_gateway(server, host_address(client)).udp(53, 4000)),
            receive_verdict::slow)
      << "the port itself has no address, but routes like any device";
}

// A VLAN on the bridge itself: the tag reaches it through whatever port, and its frames go by the
// bridge's own knowledge.
TEST_F(vlan_route_test, a_vlan_on_the_bridge_is_a_device_of_its_own) {
  router.reset();
  stack::device_config guests;
  guests.name = "br0.50";
  guests.link = stack::vlan_link{"br0", 50};
  guests.addresses = {prefix_of("192.168.50.1", 24)};
  config.devices.push_back(guests);
  config.neighbours.push_back({"br0.50", ip4("192.168.50.9"), config_mac(host_mac_of(9))});
  start();
  load_module();
  const place at{"lan1", 50};
  const auto from_guest = [&](const packet& link, u8 ttl) {
    return packet(link).ipv4("192.168.50.9", server).ttl(ttl).udp(4000, 53).payload(40);
  };
  const auto to_guest = [&](const packet& link, u8 ttl) {
    return packet(link).ipv4(server, "192.168.50.9").ttl(ttl).udp(53, 4000).payload(40);
  };
  const packet guest_link = link_header(at, bridge_mac, host_mac_of(9));
  const packet answer_link = link_header(at, host_mac_of(9), bridge_mac);
  const packet offered = from_guest(guest_link, sent_ttl);
  const packet answered = to_guest(link_header(uplink, wan_mac, gateway_mac), sent_ttl);
  EXPECT_EQ(receive_at(at, offered), receive_verdict::slow);
  EXPECT_EQ(receive_at(uplink, answered), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan1"), to_guest(answer_link, sent_ttl - 1).build());
  for (unsigned i = 0; i < rounds_to_ripen; ++i) {
    receive_at(at, offered);
    receive_at(uplink, answered);
  }
  static_cast<void>(ports_sent_on());
  EXPECT_EQ(receive_at(uplink, answered), receive_verdict::fast);
  EXPECT_FRAME_EQ(only_frame_on("lan1"), to_guest(answer_link, sent_ttl).build());
  EXPECT_EQ(receive_at(at, offered), receive_verdict::fast);
}

}  // namespace
}  // namespace tarvelo::test
