// SPDX-License-Identifier: GPL-2.0-only
//
// Packets for the router's own addresses.
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;
using local_delivery_test = router_test;

TEST_F(local_delivery_test, answers_echo_requests_to_each_of_its_addresses) {
  start();
  for (const char* address : {lan_address, wan_address, tunnel_address}) {
    SCOPED_TRACE(address);
    EXPECT_EQ(receive("lan0", from_host(address).ttl(3).icmp(8, 0, 7, 9).payload(57)),
              receive_verdict::slow);
    const bytes frame = only_frame_on("lan0");
    ASSERT_TRUE(sound_frame(frame));
    const wire::iphdr ip = ipv4_of(frame);
    EXPECT_FRAME_EQ(frame, packet()
                               .eth(host_mac, lan_mac)
                               .ipv4(address, host)
                               .ttl(64)
                               .id(ip.id.host())
                               .icmp(0, 0, 7, 9)
                               .payload(57)
                               .build());
  }
}

TEST_F(local_delivery_test, leaves_the_options_of_an_echo_request_out_of_the_reply) {
  start();
  const u8 record_route[] = {7, 7, 4, 0, 0, 0, 0, 0};
  EXPECT_EQ(
      receive("lan0", from_host(lan_address).options(record_route).icmp(8, 0, 1, 1).payload(20)),
      receive_verdict::slow);
  const bytes frame = only_frame_on("lan0");
  EXPECT_TRUE(sound_frame(frame));
  EXPECT_EQ(frame.size(), 14U + 20 + 8 + 20);
}

TEST_F(local_delivery_test, puts_a_long_echo_request_together_and_fragments_the_reply) {
  start();
  const bytes whole = packet().ipv4(host, lan_address).icmp(8, 0, 1, 1).payload(2992).build();
  const bytes data(whole.begin() + 20, whole.end());
  for (const u16 offset : {u16{0}, u16{1480}, u16{2960}}) {
    const std::size_t length = std::min<std::size_t>(1480, data.size() - offset);
    const packet fragment = from_host(lan_address)
                                .type(1)
                                .id(5)
                                .fragment(offset, offset + length < data.size())
                                .raw(std::span(data).subspan(offset, length));
    EXPECT_EQ(receive("lan0", fragment), receive_verdict::slow);
  }
  const std::vector<bytes> reply = sent_on("lan0");
  ASSERT_EQ(reply.size(), 3U);
  bytes returned;
  for (const bytes& frame : reply) {
    EXPECT_TRUE(sound_frame(frame));
    returned.insert(returned.end(), frame.begin() + 34, frame.end());
  }
  bytes expected = packet().ipv4(lan_address, host).icmp(0, 0, 1, 1).payload(2992).build();
  expected.erase(expected.begin(), expected.begin() + 20);
  EXPECT_EQ(returned, expected);
}

TEST_F(local_delivery_test, ends_what_it_does_not_serve) {
  start();
  const struct {
    const char* what;
    packet frame;
    receive_verdict verdict;
    int code;  ///< of the "unreachable" that answers, -1 for none
  } rows[] = {
      {"UDP", from_host(lan_address).udp(4000, 53).payload(8), receive_verdict::slow, 3},
      {"TCP", from_host(lan_address).tcp(4000, 80).flags(wire::tcp_flag::syn),
       receive_verdict::slow, 3},
      {"a protocol of another kind", from_host(lan_address).type(89).payload(40),
       receive_verdict::slow, 2},
      {"an echo request with a bad checksum",
       from_host(lan_address).icmp(8, 0, 1, 1).payload(8).l4_checksum(0x1234),
       receive_verdict::dropped, -1},
      {"half an ICMP header", from_host(lan_address).type(1).payload(4), receive_verdict::dropped,
       -1},
      {"an ICMP error", from_host(lan_address).icmp(3, 3).payload(28), receive_verdict::dropped,
       -1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(receive("lan0", row.frame), row.verdict);
    if (row.code < 0) {
      EXPECT_TRUE(sent_on("lan0").empty());
      continue;
    }
    const bytes error = only_frame_on("lan0");
    ASSERT_TRUE(sound_frame(error));
    EXPECT_EQ(icmp_of(error).type, 3);
    EXPECT_EQ(icmp_of(error).code, row.code);
  }
}

}  // namespace
}  // namespace tarvelo::test
