// SPDX-License-Identifier: GPL-2.0-only
//
// Packets through the router on the slow path, and the errors that answer those that cannot go.
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

class forward_test : public router_test {
 protected:
  /// What a frame must look like on the WAN: the builder's own idea of it, not the router's.
  static packet to_gateway(std::string_view source, std::string_view to) {
    return packet().eth(gateway_mac, wan_mac).ipv4(source, to);
  }

  /// Checks an ICMP error on a device: sound, of this kind, from and to whom, quoting the packet.
  void expect_error(const char* device, u8 type, u8 code, std::string_view source,
                    std::string_view to, const bytes& offender) {
    const bytes frame = only_frame_on(device);
    ASSERT_FALSE(frame.empty());
    EXPECT_TRUE(sound_frame(frame));
    EXPECT_EQ(icmp_of(frame).type, type);
    EXPECT_EQ(icmp_of(frame).code, code);
    EXPECT_EQ(ip4_text(ipv4_of(frame).saddr.raw()), source);
    EXPECT_EQ(ip4_text(ipv4_of(frame).daddr.raw()), to);
    const bytes quoted = payload_of(frame);
    const bytes packet_sent(offender.begin() + wire::ethernet_length, offender.end());
    ASSERT_GE(quoted.size(), wire::ipv4_min_length + 8U);
    ASSERT_LE(quoted.size(), packet_sent.size());
    EXPECT_EQ(quoted, bytes(packet_sent.begin(), packet_sent.begin() + quoted.size()));
  }
};

TEST_F(forward_test, sends_to_the_next_hop_with_the_ttl_one_less) {
  start();
  EXPECT_EQ(receive("lan0", from_host().ttl(64).udp(4000, 53).payload(33)), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("wan0"),
                  to_gateway(host, server).ttl(63).udp(4000, 53).payload(33).build());

  // And back, by the more specific route.
  EXPECT_EQ(receive("wan0", from_gateway(server, host).ttl(2).udp(53, 4000).payload(5)),
            receive_verdict::slow);
  EXPECT_FRAME_EQ(
      only_frame_on("lan0"),
      packet().eth(host_mac, lan_mac).ipv4(server, host).ttl(1).udp(53, 4000).payload(5).build());
  EXPECT_EQ(router->statistics().slow_forwarded, 2U);
}

// The TTL's checksum word crosses both ends of the ones' complement range over these.
TEST_F(forward_test, keeps_the_header_checksum_right_for_every_ttl_and_protocol) {
  start();
  for (unsigned ttl = 2; ttl <= 255; ++ttl) {
    const auto id = static_cast<u16>(0x0101 * ttl);
    ASSERT_EQ(receive("lan0", from_host().ttl(static_cast<u8>(ttl)).id(id).udp(1, 2).payload(8)),
              receive_verdict::slow);
    const bytes frame = only_frame_on("wan0");
    ASSERT_TRUE(sound_frame(frame)) << "ttl " << ttl;
    ASSERT_EQ(ipv4_of(frame).ttl, ttl - 1);
  }
}

TEST_F(forward_test, carries_options_and_cuts_padding) {
  start();
  const u8 router_alert[] = {0x94, 0x04, 0x00, 0x00};
  EXPECT_EQ(receive("lan0", from_host().options(router_alert).udp(4000, 53).payload(1).pad_to(60)),
            receive_verdict::slow);
  EXPECT_FRAME_EQ(
      only_frame_on("wan0"),
      to_gateway(host, server).options(router_alert).ttl(63).udp(4000, 53).payload(1).build());
}

TEST_F(forward_test, uses_the_point_to_point_device_without_a_link_layer_header) {
  start();
  EXPECT_EQ(receive("lan0", from_host(tunnel_peer).udp(4000, 53).payload(8)),
            receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("tun0"),
                  packet().ipv4(host, tunnel_peer).ttl(63).udp(4000, 53).payload(8).build());

  EXPECT_EQ(receive("tun0", packet().ipv4(tunnel_peer, host).ttl(9).udp(53, 4000).payload(8)),
            receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan0"), packet()
                                             .eth(host_mac, lan_mac)
                                             .ipv4(tunnel_peer, host)
                                             .ttl(8)
                                             .udp(53, 4000)
                                             .payload(8)
                                             .build());
}

TEST_F(forward_test, answers_a_ttl_that_has_run_out) {
  start();
  const bytes offender = from_host().ttl(1).udp(4000, 33434).payload(32).build();
  EXPECT_EQ(receive("lan0", offender), receive_verdict::slow);
  expect_error("lan0", 11, 0, lan_address, host, offender);
  EXPECT_TRUE(sent_on("wan0").empty());
  EXPECT_EQ(router->statistics().icmp_errors_sent, 1U);
}

TEST_F(forward_test, answers_without_a_route) {
  config.routes.clear();
  start();
  const bytes offender = from_host().udp(4000, 53).payload(8).build();
  EXPECT_EQ(receive("lan0", offender), receive_verdict::slow);
  expect_error("lan0", 3, 0, lan_address, host, offender);
}

TEST_F(forward_test, tells_the_mtu_to_a_sender_that_forbids_fragmentation) {
  config.devices[1].mtu = 1400;
  start();
  const bytes fits = from_host().dont_fragment().udp(4000, 53).payload(1372).build();
  EXPECT_EQ(receive("lan0", fits), receive_verdict::slow);
  EXPECT_EQ(only_frame_on("wan0").size(), 1414U);

  const bytes offender = from_host().dont_fragment().udp(4000, 53).payload(1373).build();
  EXPECT_EQ(receive("lan0", offender), receive_verdict::slow);
  const std::vector<bytes> none = sent_on("wan0");
  EXPECT_TRUE(none.empty());
  const bytes error = only_frame_on("lan0");
  ASSERT_TRUE(sound_frame(error));
  EXPECT_EQ(icmp_of(error).type, 3);
  EXPECT_EQ(icmp_of(error).code, 4);
  EXPECT_EQ(icmp_of(error).sequence.host(), 1400);
  EXPECT_EQ(error.size(), 14U + 576U) << "an error is cut to what every host takes";
}

// Its source is translated by then: the sender must see his own packet, and get the error.
TEST_F(forward_test, tells_the_sender_of_a_translated_packet_that_the_host_is_not_there) {
  config.masquerade = {"wan0"};
  start();
  const bytes offender = from_host("203.0.113.77").ttl(9).udp(4000, 53).payload(32).build();
  EXPECT_EQ(receive("lan0", offender), receive_verdict::slow);
  pass(3000);
  EXPECT_EQ(sent_on("wan0").size(), 3U) << "questions for the address";
  const bytes as_forwarded = from_host("203.0.113.77").ttl(8).udp(4000, 53).payload(32).build();
  expect_error("lan0", 3, 1, lan_address, host, as_forwarded);
}

// Each of these would draw a "time exceeded" if it were an ordinary packet.
TEST_F(forward_test, never_answers_what_must_not_be_answered) {
  start();
  const packet from_wan = from_gateway(gateway, host).ttl(1);
  const struct {
    const char* what;
    packet frame;
  } rows[] = {
      {"an ICMP error", packet(from_wan).icmp(3, 1).payload(28)},
      {"an ICMP message of unknown kind", packet(from_wan).icmp(40, 0).payload(28)},
      {"an ICMP header that is not there", packet(from_wan).type(1)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(receive("wan0", row.frame), receive_verdict::dropped);
    EXPECT_TRUE(sent_on("wan0").empty());
  }
  EXPECT_EQ(receive("wan0", packet(from_wan).icmp(8, 0, 1, 1)), receive_verdict::slow)
      << "a query is answered";
  EXPECT_EQ(sent_on("wan0").size(), 1U);
}

TEST_F(forward_test, limits_the_rate_of_errors) {
  start();
  const bytes offender = from_host().ttl(1).udp(4000, 33434).payload(32).build();
  for (int i = 0; i < 500; ++i)
    receive("lan0", offender);
  const std::size_t burst = sent_on("lan0").size();
  EXPECT_GE(burst, 10U) << "a traced path is answered whole";
  EXPECT_LE(burst, 100U);

  pass(20);
  for (int i = 0; i < 500; ++i)
    receive("lan0", offender);
  EXPECT_EQ(sent_on("lan0").size(), 20U);
}

TEST_F(forward_test, drops_addresses_that_cannot_be_on_a_link) {
  start();
  const struct {
    const char* source;
    const char* to;
  } rows[] = {
      {"0.0.0.0", server},     {"127.0.0.1", server},       {"224.0.0.1", server},
      {"240.0.0.1", server},   {"255.255.255.255", server}, {lan_address, server},
      {wan_address, server},   {host, "0.0.0.0"},           {host, "127.0.0.1"},
      {host, "224.0.0.5"},     {host, "255.255.255.255"},   {host, "250.1.1.1"},
      {host, "203.0.113.255"}, {host, "203.0.113.0"},       {host, "192.168.1.255"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.source) + " to " + row.to);
    const packet frame =
        packet().eth(lan_mac, host_mac).ipv4(row.source, row.to).udp(1, 2).payload(8);
    EXPECT_EQ(receive("lan0", frame), receive_verdict::dropped);
    EXPECT_TRUE(sent_on("wan0").empty());
    EXPECT_TRUE(sent_on("lan0").empty());
  }
}

TEST_F(forward_test, drops_frames_that_are_not_for_it_or_not_sound) {
  start();
  const packet good = from_host().udp(4000, 53).payload(8);
  const packet ip_only = packet().ipv4(host, server).udp(4000, 53).payload(8);
  const auto frame_to = [](const char* to, const char* from) {
    return packet().eth(to, from).ipv4(host, server).udp(4000, 53).payload(8);
  };
  const struct {
    const char* what;
    packet frame;
  } rows[] = {
      {"another host's", frame_to(host_mac, "02:00:00:00:01:77")},
      {"broadcast", frame_to(everyone_mac, host_mac)},
      {"multicast", frame_to("01:00:5E:00:00:01", host_mac)},
      {"from the router itself", frame_to(lan_mac, lan_mac)},
      {"from a group", frame_to(lan_mac, "03:00:00:00:01:02")},
      {"another port's address", frame_to(wan_mac, host_mac)},
      {"header checksum", from_host().ip_checksum(0x1234).udp(4000, 53).payload(8)},
      {"version", from_host().version_ihl(0x65).udp(4000, 53).payload(8)},
      {"header too short", from_host().version_ihl(0x44).udp(4000, 53).payload(8)},
      {"header beyond the packet", from_host().version_ihl(0x4F)},
      {"total length beyond the frame", from_host().total_length(200).udp(4000, 53).payload(8)},
      {"total length inside the header", from_host().total_length(19).udp(4000, 53).payload(8)},
      {"unknown type", packet().eth(lan_mac, host_mac).type(0x88CC).payload(40)},
      {"IPv6", packet().eth(lan_mac, host_mac).ipv6("2001:db8::1", "2001:db8::2").udp(1, 2)},
      {"a tag", packet().eth(lan_mac, host_mac).vlan(7).ipv4(host, server).udp(1, 2).payload(8)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(receive("lan0", row.frame), receive_verdict::dropped);
    EXPECT_TRUE(sent_on("wan0").empty());
    EXPECT_TRUE(sent_on("lan0").empty());
  }
  EXPECT_EQ(router->statistics().dropped, std::size(rows));
  EXPECT_EQ(receive("lan0", good), receive_verdict::slow) << "the frame that the rows are cut from";
}

}  // namespace
}  // namespace tarvelo::test
