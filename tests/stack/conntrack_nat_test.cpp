// SPDX-License-Identifier: GPL-2.0-only
#include <set>

#include "tests/stack/tracker_fixture.h"

namespace tarvelo::test {
namespace {

using stack::forward_config;

class conntrack_nat : public tracker_test {
 protected:
  conntrack_nat() {
    config.masquerade = {"wan0"};
    config.forwards = {
        forward_config{"wan0", wire::ip_protocol::tcp, 8080, ip4(server), 80},
        forward_config{"wan0", wire::ip_protocol::udp, 5353, ip4(server), 53},
    };
  }
};

packet udp_packet(const char* source, u16 sport, const char* destination, u16 dport,
                  std::size_t length = 9) {
  return packet().ipv4(source, destination).udp(sport, dport).payload(length);
}

packet syn(const char* source, u16 sport, const char* destination, u16 dport) {
  return packet().ipv4(source, destination).tcp(sport, dport).flags(wire::tcp_flag::syn).seq(1);
}

packet echo(u8 type, const char* source, const char* destination, u16 id) {
  return packet().ipv4(source, destination).icmp(type, 0, id, 7).payload(33);
}

constexpr u8 request = wire::icmp_type::echo_request;
constexpr u8 reply = wire::icmp_type::echo_reply;
constexpr u8 syn_ack = wire::tcp_flag::syn | wire::tcp_flag::ack;

/// A port of TCP or UDP, which keep them at the same place; the packets have no IP options.
u16 port_at(const bytes& p, std::size_t offset) {
  return static_cast<u16>(p.at(sizeof(wire::iphdr) + offset) << 8 |
                          p.at(sizeof(wire::iphdr) + offset + 1));
}
u16 source_port(const bytes& p) {
  return port_at(p, 0);
}
u16 destination_port(const bytes& p) {
  return port_at(p, 2);
}

/// A first packet and its answer, as they come in and as they go out.
TEST_F(conntrack_nat, translates_both_directions) {
  const struct {
    const char* what;
    packet first, first_out;
    packet answer, answer_out;
    bool first_from_inside;
  } rows[] = {
      {"masqueraded TCP", syn(host, 40000, peer, 80), syn(router_address, 40000, peer, 80),
       syn(peer, 80, router_address, 40000).flags(syn_ack),
       syn(peer, 80, host, 40000).flags(syn_ack), true},
      {"masqueraded UDP", udp_packet(host, 40000, peer, 53),
       udp_packet(router_address, 40000, peer, 53), udp_packet(peer, 53, router_address, 40000),
       udp_packet(peer, 53, host, 40000), true},
      {"UDP without a checksum", udp_packet(host, 41000, peer, 53).no_checksum(),
       udp_packet(router_address, 41000, peer, 53).no_checksum(),
       udp_packet(peer, 53, router_address, 41000).no_checksum(),
       udp_packet(peer, 53, host, 41000).no_checksum(), true},
      {"masqueraded echo", echo(request, host, peer, 77), echo(request, router_address, peer, 77),
       echo(reply, peer, router_address, 77), echo(reply, peer, host, 77), true},
      {"masqueraded GRE", packet().ipv4(host, peer).type(47).payload(12),
       packet().ipv4(router_address, peer).type(47).payload(12),
       packet().ipv4(peer, router_address).type(47).payload(8),
       packet().ipv4(peer, host).type(47).payload(8), true},
      {"forwarded TCP", syn(peer, 40000, router_address, 8080), syn(peer, 40000, server, 80),
       syn(server, 80, peer, 40000).flags(syn_ack),
       syn(router_address, 8080, peer, 40000).flags(syn_ack), false},
      {"forwarded UDP", udp_packet(peer, 40000, router_address, 5353),
       udp_packet(peer, 40000, server, 53), udp_packet(server, 53, peer, 40000),
       udp_packet(router_address, 5353, peer, 40000), false},
      {"no rule", udp_packet(peer, 40001, server, 99), udp_packet(peer, 40001, server, 99),
       udp_packet(server, 99, peer, 40001), udp_packet(server, 99, peer, 40001), false},
  };
  for (const auto& row : rows) {
    net_device* from = row.first_from_inside ? lan : wan;
    net_device* to = row.first_from_inside ? wan : lan;
    expect_packet(forward(row.first, from, to).packet, row.first_out, row.what);
    expect_packet(forward(row.answer, to, from).packet, row.answer_out, row.what);
    expect_packet(forward(row.first, from, to).packet, row.first_out, row.what);
  }
  EXPECT_EQ(tracker().statistics().made, std::size(rows));
}

TEST_F(conntrack_nat, translates_both_ends_at_once) {
  config.masquerade = {"lan0"};
  expect_packet(inward(syn(peer, 40000, router_address, 8080)).packet,
                syn("192.168.1.1", 40000, server, 80), "original");
  expect_packet(outward(syn(server, 80, "192.168.1.1", 40000).flags(syn_ack)).packet,
                syn(router_address, 8080, peer, 40000).flags(syn_ack), "reply");
}

TEST_F(conntrack_nat, udp_checksum_that_comes_out_as_0_is_sent_as_0xffff) {
  for (u32 word = 0; word <= 0xFFFF; ++word) {
    const u8 data[] = {static_cast<u8>(word >> 8), static_cast<u8>(word)};
    const packet out = packet().ipv4(router_address, peer).udp(40000, 53).raw(data);
    if (udp_of(out.build(), link::ip).check.raw() != 0xFFFF) continue;
    expect_packet(outward(packet().ipv4(host, peer).udp(40000, 53).raw(data)).packet, out, "0");
    return;
  }
  FAIL() << "no such datagram";
}

/// Thousands of hosts with one source port: every answer must find back to its own host.
TEST_F(conntrack_nat, colliding_ports_are_told_apart) {
  constexpr u32 hosts = 3000;
  const auto host_address = [](u32 n) { return ip4_text(wire::htonl(0x0A000001 + n)); };
  for (const u8 protocol :
       {wire::ip_protocol::tcp, wire::ip_protocol::udp, wire::ip_protocol::icmp}) {
    SCOPED_TRACE(int{protocol});
    std::set<u16> ports;
    for (u32 n = 0; n < hosts; ++n) {
      const std::string address = host_address(n);
      const packet first = protocol == wire::ip_protocol::tcp ? syn(address.c_str(), 5000, peer, 80)
                           : protocol == wire::ip_protocol::udp
                               ? udp_packet(address.c_str(), 5000, peer, 80)
                               : echo(request, address.c_str(), peer, 5000);
      const bytes out = outward(first).packet;
      const u16 port =
          protocol == wire::ip_protocol::icmp ? icmp_of(out, link::ip).id.host() : source_port(out);
      EXPECT_EQ(n == 0, port == 5000) << "the first keeps its port, the others cannot";
      EXPECT_GE(port, 1024);
      ASSERT_TRUE(ports.insert(port).second) << "port " << port << " given twice";
      const packet answer =
          protocol == wire::ip_protocol::tcp   ? syn(peer, 80, router_address, port).flags(syn_ack)
          : protocol == wire::ip_protocol::udp ? udp_packet(peer, 80, router_address, port)
                                               : echo(reply, peer, router_address, port);
      const bytes back = inward(answer).packet;
      ASSERT_EQ(ip4_text(ipv4_of(back, link::ip).daddr.raw()), address);
      if (protocol != wire::ip_protocol::icmp) {
        ASSERT_EQ(destination_port(back), 5000);
      }
    }
  }
}

TEST_F(conntrack_nat, port_of_an_inbound_connection_is_not_given_away) {
  EXPECT_FALSE(to_router(udp_packet(peer, 53, router_address, 40000)).dropped);
  const bytes out = outward(udp_packet(host, 40000, peer, 53)).packet;
  EXPECT_NE(source_port(out), 40000);
}

TEST_F(conntrack_nat, choice_of_ports_depends_on_the_packets_alone) {
  const auto second_port = [this] {
    outward(udp_packet(host, 40000, peer, 53));
    const bytes out = outward(udp_packet(server, 40000, peer, 53)).packet;
    pass(40'000);
    return source_port(out);
  };
  const u16 port = second_port();
  EXPECT_EQ(second_port(), port);
}

TEST_F(conntrack_nat, refuses_when_no_port_is_left) {
  for (u32 port = 1024; port <= 0xFFFF; ++port) {
    ASSERT_FALSE(outward(udp_packet(host, static_cast<u16>(port), peer, 53)).dropped);
  }
  pass(29'500);
  EXPECT_FALSE(outward(udp_packet(host, 65535, peer, 53)).dropped);
  EXPECT_TRUE(outward(udp_packet(server, 5000, peer, 53)).dropped);
  EXPECT_TRUE(outward(udp_packet(server, 5001, peer, 53)).dropped);
  EXPECT_FALSE(outward(udp_packet(server, 80, peer, 53)).dropped) << "its own is free";
  EXPECT_FALSE(outward(udp_packet(server, 5000, peer, 54)).dropped) << "another peer's are free";
  EXPECT_FALSE(outward(packet().ipv4(host, peer).type(50).payload(8)).dropped);
  EXPECT_TRUE(outward(packet().ipv4(server, peer).type(50).payload(8)).dropped);
  EXPECT_EQ(tracker().statistics().untranslatable, 3U);
  EXPECT_EQ(tracker().statistics().connections, 64512U + 3U);
  // All but one of the host's run out; a second after the vain search ports are found again.
  pass(999);
  EXPECT_TRUE(outward(udp_packet(server, 65535, peer, 53)).dropped);
  pass(1);
  EXPECT_FALSE(outward(udp_packet(server, 65535, peer, 53)).dropped);
  // Nor does it matter when a sign bit of the clock has changed since.
  pass(0x48000000);
  pass(0x48000000);
  EXPECT_FALSE(outward(udp_packet(host, 5000, peer, 53)).dropped);
  EXPECT_FALSE(outward(udp_packet(server, 5000, peer, 53)).dropped);
}

TEST_F(conntrack_nat, picks_up_no_connection_that_needs_translation) {
  const auto ack = [](packet p) { return p.flags(wire::tcp_flag::ack); };
  EXPECT_TRUE(outward(ack(syn(host, 40000, peer, 80))).dropped);
  EXPECT_TRUE(inward(ack(syn(peer, 40000, router_address, 8080))).dropped);
  EXPECT_FALSE(to_router(ack(syn(peer, 40000, router_address, 22))).dropped);
  EXPECT_EQ(tracker().statistics().connections, 0U);
}

constexpr const char* middle = "192.0.2.1";  ///< a router somewhere on the way
constexpr const char* inner = "192.168.1.254";

packet unreachable(const char* source, const char* destination, const bytes& quoted) {
  return packet().ipv4(source, destination).icmp(wire::icmp_type::unreachable, 1).raw(quoted);
}

/// The first `length` bytes of a packet behind its IP header, as errors quote it.
bytes head_of(const packet& p, std::size_t length) {
  bytes whole = p.build();
  whole.resize(std::min(whole.size(), sizeof(wire::iphdr) + length));
  return whole;
}

TEST_F(conntrack_nat, errors_are_translated_with_what_they_quote) {
  outward(udp_packet(host, 40000, peer, 53));
  outward(syn(host, 40000, peer, 80));
  outward(echo(request, server, peer, 9));
  const bytes moved = outward(echo(request, host, peer, 9)).packet;
  const u16 moved_id = icmp_of(moved, link::ip).id.host();
  inward(syn(peer, 40000, router_address, 8080));
  const packet tcp_answer = syn(peer, 80, host, 40000).flags(syn_ack);
  const packet tcp_answer_arriving = syn(peer, 80, router_address, 40000).flags(syn_ack);

  const struct {
    const char* what;
    packet in, out;
    bool from_inside;
  } rows[] = {
      {"about masqueraded UDP, whole",
       unreachable(middle, router_address, udp_packet(router_address, 40000, peer, 53).build()),
       unreachable(middle, host, udp_packet(host, 40000, peer, 53).build()), false},
      {"about masqueraded UDP, 8 bytes",
       unreachable(peer, router_address, head_of(udp_packet(router_address, 40000, peer, 53), 8)),
       unreachable(peer, host, head_of(udp_packet(host, 40000, peer, 53), 8)), false},
      {"about masqueraded TCP, 8 bytes",
       unreachable(middle, router_address, head_of(syn(router_address, 40000, peer, 80), 8)),
       unreachable(middle, host, head_of(syn(host, 40000, peer, 80), 8)), false},
      {"about masqueraded TCP, whole header",
       unreachable(middle, router_address, head_of(syn(router_address, 40000, peer, 80), 20)),
       unreachable(middle, host, head_of(syn(host, 40000, peer, 80), 20)), false},
      {"about an echo whose id was moved",
       unreachable(middle, router_address, echo(request, router_address, peer, moved_id).build()),
       unreachable(middle, host, echo(request, host, peer, 9).build()), false},
      {"from the inside about an answer", unreachable(host, peer, tcp_answer.build()),
       unreachable(router_address, peer, tcp_answer_arriving.build()), true},
      {"from a router inside", unreachable(inner, peer, tcp_answer.build()),
       unreachable(router_address, peer, tcp_answer_arriving.build()), true},
      {"from a forwarded server", unreachable(server, peer, syn(peer, 40000, server, 80).build()),
       unreachable(router_address, peer, syn(peer, 40000, router_address, 8080).build()), true},
  };
  for (const auto& row : rows) {
    const passage result = row.from_inside ? outward(row.in) : inward(row.in);
    expect_packet(result.packet, row.out, row.what);
    EXPECT_TRUE(result.info == IP_CT_RELATED || result.info == IP_CT_RELATED_REPLY) << row.what;
  }
}

TEST_F(conntrack_nat, drops_what_belongs_to_no_connection) {
  outward(udp_packet(host, 40000, peer, 53));
  const bytes quoted = udp_packet(router_address, 40000, peer, 53).build();
  const struct {
    const char* what;
    packet in;
  } rows[] = {
      {"another port",
       unreachable(middle, router_address, udp_packet(router_address, 40001, peer, 53).build())},
      {"wrong checksum", unreachable(middle, router_address, quoted).l4_checksum(1)},
      {"seven bytes",
       unreachable(middle, router_address, bytes(quoted.begin(), quoted.begin() + 27))},
      {"no quotation", unreachable(middle, router_address, {})},
      {"a later fragment",
       unreachable(middle, router_address,
                   udp_packet(router_address, 40000, peer, 53).fragment(8, false).build())},
      {"an error about an error",
       unreachable(middle, router_address, unreachable(router_address, peer, quoted).build())},
      {"an answer without a question", echo(reply, peer, router_address, 1)},
      {"a redirect", packet().ipv4(middle, router_address).icmp(5, 0).raw(quoted)},
      {"UDP that is longer than its packet",
       udp_packet(peer, 53, router_address, 40000).udp_length(18)},
      {"UDP shorter than its header", udp_packet(peer, 53, router_address, 40000).udp_length(7)},
      {"UDP with a wrong checksum", udp_packet(peer, 53, router_address, 40000).l4_checksum(1)},
      {"half a UDP header", packet().ipv4(peer, router_address).type(17).payload(7)},
      {"half a TCP header", packet().ipv4(peer, router_address).type(6).payload(19)},
      {"three bytes of TCP", packet().ipv4(peer, router_address).type(6).payload(3)},
  };
  for (const auto& row : rows)
    EXPECT_TRUE(inward(row.in).dropped) << row.what;
  EXPECT_EQ(tracker().statistics().connections, 1U);
}

/// Errors that the router makes itself, about a packet at the end of its translation.
TEST_F(conntrack_nat, own_errors_show_the_sender_what_it_sent) {
  const packet sent = udp_packet(host, 40000, peer, 53);
  stack::track_verdict verdict;
  sk_buff* about = carry(sent, lan, wan, &verdict);
  const bytes translated = bytes_of(about);
  sk_buff* error = make_skb(unreachable("192.168.1.1", router_address, translated).build(), lan);
  {
    const stack::stack_guard guard;
    tracker().translate_own_error(error, about);
  }
  expect_packet(bytes_of(error), unreachable("192.168.1.1", host, sent.build()), "own error");
  in_softirq([&] {
    kfree_skb(error);
    kfree_skb(about);
  });
}

}  // namespace
}  // namespace tarvelo::test
