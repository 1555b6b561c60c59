// SPDX-License-Identifier: GPL-2.0-only
//
// IPv6 frame by frame: forwarding, errors, echo, neighbour discovery and fragments.
#include <algorithm>

#include <algorithm>
#include <cstring>

#include "kernel/fast_path.h"
#include "kernel/nf_conntrack.h"
#include "kernel/route.h"
#include "tests/stack/ipv6_fixture.h"
#include "tests/support/packet_layer.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

constexpr u8 icmpv6 = wire::ip_protocol::icmpv6;
constexpr u8 solicitation = wire::icmpv6_type::neighbour_solicitation;
constexpr u8 advertisement = wire::icmpv6_type::neighbour_advertisement;
constexpr u32 solicited_override = 0x60000000;

TEST_F(ipv6_test, forwards_both_ways_with_one_hop_less) {
  start();
  EXPECT_EQ(receive("lan0", from_host6().ttl(9).udp(4000, 53).payload(8)), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("wan0"), to_gateway6().ttl(8).udp(4000, 53).payload(8).build());
  EXPECT_EQ(receive("wan0", from_gateway6().ttl(9).udp(53, 4000).payload(9)),
            receive_verdict::slow);
  EXPECT_FRAME_EQ(
      only_frame_on("lan0"),
      packet().eth(host_mac, lan_mac).ipv6(server6, host6).ttl(8).udp(53, 4000).payload(9).build());
  EXPECT_EQ(router->statistics().connections, 1U) << "the answer belongs to the question";
}

// A translating device translates IPv4 only.
TEST_F(ipv6_test, is_never_masqueraded) {
  config.masquerade = {"wan0"};
  start();
  receive("lan0", from_host6().ttl(9).udp(4000, 53).payload(8));
  EXPECT_EQ(ipv6_of(only_frame_on("wan0")).saddr, ip6(host6));
}

TEST_F(ipv6_test, what_may_not_pass_is_dropped_or_answered) {
  config.devices[1].mtu = 1280;
  start();
  const u8 hop_by_hop[] = {wire::ip_protocol::udp, 0, 1, 4, 0, 0, 0, 0};
  const struct {
    const char* what;
    packet frame;
    int type;  ///< of the error; -1: dropped in silence
    int code;
  } rows[] = {
      {"hop limit", from_host6().ttl(1).udp(1, 2).payload(8), 3, 0},
      {"too big", from_host6().udp(1, 2).payload(1300), 2, 0},
      {"port of the router", from_host6(lan6).udp(1, 2).payload(8), 1, 4},
      {"unknown next header", from_host6(lan6).type(200).raw(hop_by_hop), 4, 1},
      {"from link-local", packet().eth(lan_mac, host_mac).ipv6("fe80::5", server6).udp(1, 2), -1,
       0},
      {"to link-local", from_host6("fe80::5").udp(1, 2).payload(8), -1, 0},
      {"to multicast", from_host6("ff0e::5").udp(1, 2).payload(8), -1, 0},
      {"from multicast", packet().eth(lan_mac, host_mac).ipv6("ff02::1", server6).udp(1, 2), -1, 0},
      {"from the router itself", packet().eth(lan_mac, host_mac).ipv6(wan6, server6).udp(1, 2), -1,
       0},
      {"bad checksum", from_host6().udp(1, 2).payload(8).l4_checksum(1), -1, 0},
      {"cut extension", from_host6().type(0).raw(std::span(hop_by_hop).first(4)), -1, 0},
      {"longer than the frame", from_host6().total_length(500).udp(1, 2).payload(8), -1, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const receive_verdict verdict = receive("lan0", row.frame);
    EXPECT_TRUE(sent_on("wan0").empty());
    const std::vector<bytes> answers = sent_on("lan0");
    EXPECT_EQ(answers.size(), row.type < 0 ? 0U : 1U);
    EXPECT_EQ(verdict, row.type < 0 ? receive_verdict::dropped : receive_verdict::slow);
    if (answers.size() != 1) continue;
    const bytes message = ipv6_payload_of(answers[0]);
    ASSERT_GE(message.size(), 8U);
    EXPECT_EQ(message[0], row.type);
    EXPECT_EQ(message[1], row.code);
    EXPECT_EQ(ipv6_of(answers[0]).saddr, ip6(lan6));
    EXPECT_LE(answers[0].size(), 14U + 1280U);
    const std::span body = std::span(message).subspan(8);
    const u32 word = u32{message[6]} << 8 | message[7];
    EXPECT_EQ(message, icmpv6_message(lan6, host6, message[0], message[1], word, body));
    EXPECT_EQ(word, row.type == 2 ? 1280U : row.type == 4 ? 6U : 0U);
  }
}

TEST_F(ipv6_test, no_error_answers_an_error) {
  start();
  const bytes quoted = packet().ipv6(host6, server6).udp(1, 2).payload(8).build();
  receive("lan0",
          from_host6().ttl(1).type(icmpv6).raw(icmpv6_message(host6, server6, 1, 4, 0, quoted)));
  EXPECT_TRUE(sent_on("lan0").empty());
}

TEST_F(ipv6_test, errors_about_a_connection_pass_untouched) {
  start();
  receive("lan0", from_host6().udp(4000, 53).payload(8));
  const bytes sent = only_frame_on("wan0");
  const bytes error =
      icmpv6_message(server6, host6, 1, 4, 0, std::span(sent).subspan(wire::ethernet_length));
  EXPECT_EQ(receive("wan0", from_gateway6().type(icmpv6).raw(error)), receive_verdict::slow);
  EXPECT_EQ(ipv6_payload_of(only_frame_on("lan0")), error);
  receive("wan0", from_gateway6().type(icmpv6).raw(
                      icmpv6_message(server6, host6, 1, 4, 0,
                                     packet().ipv6(host6, server6).udp(9, 9).payload(8).build())));
  EXPECT_TRUE(sent_on("lan0").empty()) << "about a connection that nobody has";
}

TEST_F(ipv6_test, answers_echo_requests_to_its_addresses_and_forwards_others) {
  start();
  const u8 body[] = {1, 2, 3, 4, 5};
  const bytes request = icmpv6_message(host6, lan6, 128, 0, 0x00070001, body);
  EXPECT_EQ(receive("lan0", from_host6(lan6).type(icmpv6).raw(request)), receive_verdict::slow);
  EXPECT_EQ(ipv6_payload_of(only_frame_on("lan0")),
            icmpv6_message(lan6, host6, 129, 0, 0x00070001, body));
  const bytes onward = icmpv6_message(host6, server6, 128, 0, 0x00070001, body);
  receive("lan0", from_host6().type(icmpv6).raw(onward));
  EXPECT_EQ(ipv6_payload_of(only_frame_on("wan0")), onward);
}

TEST_F(ipv6_test, a_neighbour_is_asked_and_what_waited_for_it_is_sent) {
  start();
  receive("wan0", from_gateway6(guest6).ttl(9).udp(53, 4000).payload(8));
  const bytes question = only_frame_on("lan0");
  EXPECT_EQ(mac_text(eth_of(question).h_dest), "33:33:ff:00:00:09");
  EXPECT_EQ(ipv6_of(question).daddr, ip6("ff02::1:ff00:9"));
  EXPECT_EQ(ipv6_of(question).hop_limit, 255);
  EXPECT_EQ(ipv6_payload_of(question), icmpv6_message(lan6, "ff02::1:ff00:9", solicitation, 0, 0,
                                                      nd_body(guest6, 1, lan_mac)));

  const bytes answer = icmpv6_message(guest6, lan6, advertisement, 0, solicited_override,
                                      nd_body(guest6, 2, guest_mac));
  const packet from_guest = packet().eth(lan_mac, guest_mac).ipv6(guest6, lan6).type(icmpv6);
  receive("lan0", packet(from_guest).ttl(254).raw(answer));
  EXPECT_TRUE(sent_on("lan0").empty()) << "passed on by a router";
  EXPECT_EQ(receive("lan0", packet(from_guest).ttl(255).raw(answer)), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan0"), packet()
                                             .eth(guest_mac, lan_mac)
                                             .ipv6(server6, guest6)
                                             .ttl(8)
                                             .udp(53, 4000)
                                             .payload(8)
                                             .build());
}

TEST_F(ipv6_test, a_neighbour_that_does_not_answer_is_unreachable) {
  start();
  receive("wan0", from_gateway6(guest6).udp(53, 4000).payload(8));
  pass(3000);
  EXPECT_EQ(sent_on("lan0").size(), 3U) << "questions";
  const bytes error = only_frame_on("wan0");
  EXPECT_EQ(ipv6_of(error).daddr, ip6(server6));
  ASSERT_GE(ipv6_payload_of(error).size(), 2U);
  EXPECT_EQ(ipv6_payload_of(error)[0], 1);
  EXPECT_EQ(ipv6_payload_of(error)[1], 3);
}

TEST_F(ipv6_test, solicitations_for_its_addresses_are_answered) {
  start();
  const struct {
    const char* target;
    const char* sender;
    const char* group;
    const char* answer_to;
    u32 flags;
  } rows[] = {
      {lan6, host6, "ff02::1:ff00:1", host6, 0xE0000000},
      {"fe80::ff:fe00:101", "fe80::5", "ff02::1:ff00:101", "fe80::5", 0xE0000000},
      {lan6, "::", "ff02::1:ff00:1", "ff02::1", 0xA0000000},
      {wan6, host6, "ff02::1:ff00:1", nullptr, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.target);
    const std::string_view option = row.sender == std::string_view("::") ? "" : host_mac;
    receive("lan0", packet()
                        .eth("33:33:ff:00:00:01", host_mac)
                        .ipv6(row.sender, row.group)
                        .ttl(255)
                        .type(icmpv6)
                        .raw(icmpv6_message(row.sender, row.group, solicitation, 0, 0,
                                            nd_body(row.target, 1, option))));
    const std::vector<bytes> answers = sent_on("lan0");
    ASSERT_EQ(answers.size(), row.answer_to != nullptr ? 1U : 0U);
    if (answers.empty()) continue;
    EXPECT_EQ(ipv6_of(answers[0]).hop_limit, 255);
    EXPECT_EQ(ipv6_payload_of(answers[0]),
              icmpv6_message(row.target, row.answer_to, advertisement, 0, row.flags,
                             nd_body(row.target, 2, lan_mac)));
  }
}

TEST_F(ipv6_test, fragments_are_tracked_whole_and_forwarded_as_they_came) {
  start();
  const bytes data = datagram(120);
  std::vector<ipv6_piece> pieces = {{0, 32}, {32, 96}, {96, 120}};
  const auto by_start = [](const ipv6_piece& a, const ipv6_piece& b) { return a.start < b.start; };
  const auto piece_of = [&](packet link, const ipv6_piece& piece, u8 hop_limit) {
    return ipv6_fragment(link, host6, server6, hop_limit, data, piece, 77);
  };
  do {
    for (const ipv6_piece& piece : pieces) {
      EXPECT_TRUE(sent_on("wan0").empty());
      EXPECT_EQ(receive("lan0", piece_of(packet().eth(lan_mac, host_mac), piece, 9)),
                receive_verdict::slow);
    }
    const std::vector<bytes> sent = sent_on("wan0");
    std::vector<ipv6_piece> in_order = pieces;
    std::ranges::sort(in_order, by_start);
    ASSERT_EQ(sent.size(), in_order.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
      EXPECT_FRAME_EQ(sent[i],
                      piece_of(packet().eth(gateway_mac, wan_mac), in_order[i], 8).build());
    }
  } while (std::next_permutation(pieces.begin(), pieces.end(), by_start));
  EXPECT_EQ(router->statistics().connections, 1U);
}

TEST_F(ipv6_test, fragments_that_never_make_a_datagram_go_no_further) {
  start();
  const bytes data = datagram(120);
  const packet link = packet().eth(lan_mac, host_mac);
  const struct {
    const char* what;
    std::vector<ipv6_piece> pieces;
  } rows[] = {
      {"overlap", {{0, 64}, {32, 120}, {64, 120}}},
      {"the same start, another length", {{0, 64}, {0, 32}, {64, 120}}},
      {"a middle is missing", {{0, 32}, {96, 120}}},
  };
  u32 id = 1;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    ++id;
    for (const ipv6_piece& piece : row.pieces)
      receive("lan0", ipv6_fragment(link, host6, server6, 9, data, piece, id));
    EXPECT_TRUE(sent_on("wan0").empty());
  }
  pass(30000);
  const bytes error = only_frame_on("lan0");
  ASSERT_GE(ipv6_payload_of(error).size(), 2U);
  EXPECT_EQ(ipv6_payload_of(error)[0], 3) << "for the datagram whose beginning was there";
  EXPECT_EQ(ipv6_payload_of(error)[1], 1);
}

/// What the module is told of a forwarded packet.
struct reported_packet {
  std::string dev;
  std::string rx_dev;
  bool add_as_reply;
  bool has_route;
  int info;
  u8 next_header;
  u16 source_port;  ///< the first word at the transport header
};
std::vector<reported_packet> reported;

void note_report(vok_handle*, sk_buff* skb) {
  wire::be16 port;
  std::memcpy(&port, skb_transport_header(skb), sizeof port);
  const auto* ip = reinterpret_cast<const wire::ipv6hdr*>(skb_network_header(skb));
  reported.push_back({skb->dev->name, skb->rx_dev->name,
                      (skb->fast_flags & fast_flag::add_as_reply) != 0, skb_dst(skb) != nullptr,
                      skb->nfctinfo, ip->nexthdr, port.host()});
}

TEST_F(ipv6_test, forwarded_packets_are_reported_at_their_input_device) {
  vok_handle handle{};
  handle.__ipv6_conntrack_ipc_add = note_report;
  handle._vok_ipc_delete_by_dev = [](vok_handle*, net_device*) { return 0; };
  handle._ip_conntrack_ipct_delete = [](vok_handle*, nf_conn*) { return 0; };
  handle._vok_nf_conntrack_ext_alloc = [](nf_conn*) { return -1; };
  kcih = &handle;
  reported.clear();
  start();
  const bytes data = datagram(120);
  const packet link = packet().eth(lan_mac, host_mac);
  receive("lan0", ipv6_fragment(link, host6, server6, 9, data, {64, 120}, 3));
  receive("lan0", ipv6_fragment(link, host6, server6, 9, data, {0, 64}, 3));
  receive("wan0", from_gateway6().udp(53, 4000).payload(8));
  receive("lan0", from_host6(lan6).udp(4000, 53).payload(8));
  const u8 body[] = {1};
  receive("lan0", from_host6().type(icmpv6).raw(icmpv6_message(host6, server6, 128, 0, 1, body)));

  ASSERT_EQ(reported.size(), 2U) << "neither what is for the router nor what the module cannot do";
  for (const reported_packet& one : reported) {
    EXPECT_EQ(one.dev, one.rx_dev);
    EXPECT_FALSE(one.add_as_reply);
    EXPECT_TRUE(one.has_route);
    EXPECT_EQ(one.next_header, wire::ip_protocol::udp);
  }
  EXPECT_EQ(reported[0].dev, "lan0");
  EXPECT_EQ(reported[0].info, IP_CT_NEW);
  EXPECT_EQ(reported[0].source_port, 4000) << "put together, without its fragment header";
  EXPECT_EQ(reported[1].dev, "wan0");
  EXPECT_EQ(reported[1].info, IP_CT_ESTABLISHED_REPLY);
  EXPECT_EQ(reported[1].source_port, 53);
  router.reset();
  kcih = nullptr;
}

TEST_F(ipv6_test, survives_every_truncation) {
  start();
  const bytes frames[] = {
      from_host6().udp(4000, 53).payload(8).build(),
      ipv6_fragment(packet().eth(lan_mac, host_mac), host6, server6, 9, datagram(120), {0, 32}, 5)
          .build(),
      packet()
          .eth(lan_mac, host_mac)
          .ipv6(host6, lan6)
          .ttl(255)
          .type(icmpv6)
          .raw(icmpv6_message(host6, lan6, solicitation, 0, 0, nd_body(lan6, 1, host_mac)))
          .build(),
  };
  for (bytes frame : frames) {
    for (std::size_t length = 14; length < frame.size(); ++length) {
      const bytes cut(frame.begin(), frame.begin() + length);
      receive("lan0", cut);
      // The same with a header that claims no more than is there.
      if (length < 54) continue;
      bytes shorter = cut;
      put16(shorter, 18, static_cast<u16>(length - 54));
      receive("lan0", shorter);
    }
  }
  EXPECT_TRUE(sent_on("wan0").empty());
}

}  // namespace
}  // namespace tarvelo::test
