// SPDX-License-Identifier: GPL-2.0-only
//
// ARP on the wire and the life of what is learnt from it.
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

constexpr const char* nobody_mac = "00:00:00:00:00:00";
constexpr const char* other = "192.168.1.3";
constexpr const char* other_mac = "02:00:00:00:01:03";
constexpr const char* moved_mac = "02:00:00:00:01:33";

class arp_test : public router_test {
 protected:
  arp_test() {
    config.neighbours.clear();
    config.neighbours.push_back({"wan0", ip4(gateway), config_mac(gateway_mac)});
  }

  /// A packet from the gateway to the host whose address the router does not know.
  receive_verdict packet_to_other(u16 number) {
    return receive("wan0", from_gateway(server, other).id(number).udp(53, 4000).payload(8));
  }
  static packet question(const char* to_mac) {
    return packet()
        .eth(to_mac, lan_mac)
        .arp(wire::arp_op::request, lan_mac, lan_address, nobody_mac, other);
  }
  receive_verdict answer(const char* mac) {
    return receive(
        "lan0",
        packet().eth(lan_mac, mac).arp(wire::arp_op::reply, mac, other, lan_mac, lan_address));
  }
  void resolve() {
    packet_to_other(1);
    answer(other_mac);
    ASSERT_EQ(sent_on("lan0").size(), 2U);
  }
  /// The hardware address that packets to `other` go to now; empty when none goes.
  std::string where_packets_go() {
    packet_to_other(99);
    const std::vector<bytes> frames = sent_on("lan0");
    for (const bytes& frame : frames) {
      const wire::ethhdr eth = eth_of(frame);
      if (eth.h_proto.host() == wire::ethertype::ipv4) return mac_text(eth.h_dest);
    }
    return {};
  }
};

TEST_F(arp_test, answers_for_the_addresses_of_the_device_asked_and_no_others) {
  start();
  const auto ask = [&](const char* sender, const char* target) {
    return receive("lan0", packet()
                               .eth(everyone_mac, other_mac)
                               .arp(wire::arp_op::request, other_mac, sender, nobody_mac, target)
                               .pad_to(60));
  };
  EXPECT_EQ(ask(other, lan_address), receive_verdict::slow);
  const bytes reply = packet()
                          .eth(other_mac, lan_mac)
                          .arp(wire::arp_op::reply, lan_mac, lan_address, other_mac, other)
                          .build();
  EXPECT_FRAME_EQ(only_frame_on("lan0"), reply);

  ask(other, wan_address);
  ask(other, host);
  ask("10.1.2.3", lan_address);  // not of this link
  ask(wan_address, lan_address);
  EXPECT_TRUE(sent_on("lan0").empty());

  ask("0.0.0.0", lan_address);  // is the address taken?
  EXPECT_EQ(arp_of(only_frame_on("lan0")).ar_op.host(), wire::arp_op::reply);
}

TEST_F(arp_test, packets_wait_for_the_answer_and_leave_in_order) {
  start();
  for (u16 n = 1; n <= 3; ++n)
    EXPECT_EQ(packet_to_other(n), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan0"), question(everyone_mac).build());

  EXPECT_EQ(answer(other_mac), receive_verdict::slow);
  const std::vector<bytes> frames = sent_on("lan0");
  ASSERT_EQ(frames.size(), 3U);
  for (u16 n = 1; n <= 3; ++n) {
    EXPECT_FRAME_EQ(frames[n - 1U], packet()
                                        .eth(other_mac, lan_mac)
                                        .ipv4(server, other)
                                        .id(n)
                                        .ttl(63)
                                        .udp(53, 4000)
                                        .payload(8)
                                        .build());
  }
}

TEST_F(arp_test, asks_three_times_and_then_tells_the_sender) {
  start();
  packet_to_other(1);
  packet_to_other(2);
  EXPECT_EQ(sent_on("lan0").size(), 1U);
  pass(999);
  EXPECT_TRUE(sent_on("lan0").empty());
  pass(1);
  EXPECT_EQ(sent_on("lan0").size(), 1U);
  pass(1000);
  EXPECT_EQ(sent_on("lan0").size(), 1U);
  EXPECT_TRUE(sent_on("wan0").empty());
  pass(1000);
  EXPECT_TRUE(sent_on("lan0").empty());
  const std::vector<bytes> errors = sent_on("wan0");
  ASSERT_EQ(errors.size(), 2U);
  for (const bytes& error : errors) {
    EXPECT_TRUE(sound_frame(error));
    EXPECT_EQ(icmp_of(error).type, 3);
    EXPECT_EQ(icmp_of(error).code, 1);
    EXPECT_EQ(ip4_text(ipv4_of(error).daddr.raw()), server);
  }
  // The next packet asks again.
  packet_to_other(3);
  EXPECT_FRAME_EQ(only_frame_on("lan0"), question(everyone_mac).build());
}

TEST_F(arp_test, bounds_what_waits_and_how_many_are_waited_for) {
  config.table_limits.packets_per_neighbour = 2;
  config.table_limits.neighbours = 3;  // two besides the gateway and the point-to-point entry
  config.devices.pop_back();
  start();
  EXPECT_EQ(packet_to_other(1), receive_verdict::slow);
  EXPECT_EQ(packet_to_other(2), receive_verdict::slow);
  EXPECT_EQ(packet_to_other(3), receive_verdict::dropped);
  answer(other_mac);
  EXPECT_EQ(sent_on("lan0").size(), 1U + 2U);

  receive("wan0", from_gateway(server, "192.168.1.4").udp(1, 2).payload(8));
  EXPECT_EQ(receive("wan0", from_gateway(server, "192.168.1.5").udp(1, 2).payload(8)),
            receive_verdict::dropped);
  EXPECT_EQ(router->statistics().neighbours_refused, 1U);
}

TEST_F(arp_test, probes_the_known_address_of_an_entry_that_has_aged) {
  start();
  resolve();
  pass(30000);
  EXPECT_EQ(where_packets_go(), other_mac) << "a stale entry is used";
  pass(5000);
  EXPECT_FRAME_EQ(only_frame_on("lan0"), question(other_mac).build());
  answer(other_mac);
  pass(20000);
  EXPECT_TRUE(sent_on("lan0").empty()) << "confirmed for another while";
}

TEST_F(arp_test, probes_an_entry_that_only_the_fast_path_may_be_using) {
  start();
  resolve();
  pass(30000 + 59000);
  EXPECT_TRUE(sent_on("lan0").empty());
  pass(1000);
  EXPECT_FRAME_EQ(only_frame_on("lan0"), question(other_mac).build());
  pass(2000);
  EXPECT_EQ(sent_on("lan0").size(), 2U);
  pass(1000);
  EXPECT_EQ(where_packets_go(), "") << "an entry that does not answer is not used";
}

TEST_F(arp_test, learns_from_questions_and_announcements) {
  start();
  // A question for the router makes an entry.
  receive("lan0", packet()
                      .eth(everyone_mac, other_mac)
                      .arp(wire::arp_op::request, other_mac, other, nobody_mac, lan_address));
  static_cast<void>(sent_on("lan0"));
  EXPECT_EQ(where_packets_go(), other_mac);

  // An announcement corrects one that is there.
  receive("lan0", packet()
                      .eth(everyone_mac, moved_mac)
                      .arp(wire::arp_op::request, moved_mac, other, nobody_mac, other));
  EXPECT_EQ(where_packets_go(), moved_mac);
}

TEST_F(arp_test, does_not_believe_what_it_should_not) {
  start();
  // An announcement makes no entry.
  receive("lan0", packet()
                      .eth(everyone_mac, other_mac)
                      .arp(wire::arp_op::request, other_mac, other, nobody_mac, other));
  // Nor does an answer nobody asked for.
  answer(other_mac);
  EXPECT_EQ(where_packets_go(), "");
  static_cast<void>(sent_on("lan0"));

  // A configured neighbour stays where it is.
  receive("wan0", packet()
                      .eth(wan_mac, moved_mac)
                      .arp(wire::arp_op::reply, moved_mac, gateway, wan_mac, wan_address));
  receive("lan0", packet().eth(lan_mac, other_mac).ipv4(other, server).udp(1, 2).payload(8));
  EXPECT_EQ(mac_text(eth_of(only_frame_on("wan0")).h_dest), gateway_mac);
}

TEST_F(arp_test, ignores_malformed_messages) {
  start();
  const bytes good = packet()
                         .eth(everyone_mac, other_mac)
                         .arp(wire::arp_op::request, other_mac, other, nobody_mac, lan_address)
                         .build();
  const struct {
    const char* what;
    std::size_t at;
    u8 value;
  } rows[] = {{"hardware type", 15, 6},    {"protocol type", 16, 0x86}, {"hardware length", 18, 8},
              {"protocol length", 19, 16}, {"operation", 21, 9},        {"group sender", 22, 0x03},
              {"no operation", 21, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    bytes frame = good;
    frame[row.at] = row.value;
    EXPECT_EQ(receive("lan0", frame), receive_verdict::dropped);
  }
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_EQ(receive("lan0", bytes(good.begin(), good.begin() + length)),
              receive_verdict::dropped);
  }
  EXPECT_TRUE(sent_on("lan0").empty());
}

}  // namespace
}  // namespace tarvelo::test
