// SPDX-License-Identifier: GPL-2.0-only
//
// Fragments with the module loaded: whatever comes before the first fragment waits for it and then
// goes the same way, once and unchanged but for what routing changes. An order in which that cannot
// be: the last fragment overtakes another one after the first has gone, for with the last the fast
// path forgets the datagram.
#include <functional>

#include "kernel/module_loader.h"
#include "module/core/init.h"
#include "tests/stack/ipv6_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

/// The fast path takes a connection whose beginning tracking has seen.
constexpr unsigned rounds_to_ripen = 25;
constexpr u8 hop_limit = 9;
constexpr ipv6_piece first{0, 32};
constexpr ipv6_piece second{32, 64};
constexpr ipv6_piece third{64, 96};
constexpr ipv6_piece last{96, 120};

class fragment_offer_test : public ipv6_test {
 protected:
  void start_with_module() {
    start();
    std::string error;
    module = loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
    ASSERT_NE(module, nullptr) << error;
  }

  /// Sends both ways until the connection of `question` is on the fast path.
  void ripen(const packet& question, const packet& answer) {
    for (unsigned round = 0; round < rounds_to_ripen; ++round) {
      receive("lan0", question);
      receive("wan0", answer);
    }
    EXPECT_EQ(receive("lan0", question), receive_verdict::fast);
    static_cast<void>(sent_on("wan0"));
    static_cast<void>(sent_on("lan0"));
  }

  std::unique_ptr<loaded_module> module;
};

/// One family's fragments, as they come in and as they leave by the fast path.
struct family {
  const char* name;
  std::function<packet(ipv6_piece, u32 id)> in;
  std::function<packet(ipv6_piece, u32 id)> out;
};

std::vector<family> families(const bytes& data4, const bytes& data4_out, const bytes& data6) {
  const auto ipv4 = [](packet link, const char* source, const bytes& data, ipv6_piece piece,
                       u32 id) {
    const std::span part = std::span(data).subspan(piece.start, piece.end - piece.start);
    return link.ipv4(source, server)
        .type(wire::ip_protocol::udp)
        .ttl(hop_limit)
        .id(static_cast<u16>(id))
        .fragment(piece.start, piece.end < data.size())
        .raw(part);
  };
  const packet in = packet().eth(lan_mac, host_mac);
  const packet out = packet().eth(gateway_mac, wan_mac);
  return {
      {"IPv4 behind an address", [=](ipv6_piece p, u32 id) { return ipv4(in, host, data4, p, id); },
       [=](ipv6_piece p, u32 id) { return ipv4(out, wan_address, data4_out, p, id); }},
      {"IPv6",
       [=](ipv6_piece p, u32 id) {
         return ipv6_fragment(in, host6, server6, hop_limit, data6, p, id);
       },
       [=](ipv6_piece p, u32 id) {
         return ipv6_fragment(out, host6, server6, hop_limit, data6, p, id);
       }}};
}

bytes udp_from(const char* source, std::size_t length) {
  const bytes whole = packet().ipv4(source, server).udp(4000, 53).payload(length - 8).build();
  return {whole.begin() + wire::ipv4_min_length, whole.end()};
}

TEST_F(fragment_offer_test, a_datagram_arrives_whole_in_the_orders_in_which_it_can) {
  config.masquerade = {"wan0"};
  start_with_module();
  ripen(from_host().udp(4000, 53).payload(8),
        from_gateway(server, wan_address).udp(53, 4000).payload(8));
  ripen(from_host6().udp(4000, 53).payload(8), from_gateway6().udp(53, 4000).payload(8));

  const struct {
    const char* what;
    std::vector<ipv6_piece> arriving;
    std::vector<ipv6_piece> leaving;
  } rows[] = {
      {"in order", {first, second, third, last}, {first, second, third, last}},
      {"the first one last", {second, third, last, first}, {first, second, third, last}},
      {"backwards", {last, third, second, first}, {first, second, third, last}},
      {"the last before a middle", {last, first, third, second}, {first, third, second, last}},
      {"a middle before the first", {third, first, second, last}, {first, third, second, last}},
      {"a repeated middle that waits",
       {second, second, first, third, last},
       {first, second, third, last}},
      {"the first one missing", {second, third, last}, {}},
      {"the last overtakes", {second, first, last, third}, {first, second, last}},
  };
  u32 id = 100;
  for (const family& one :
       families(udp_from(host, 120), udp_from(wan_address, 120), datagram(120))) {
    for (const auto& row : rows) {
      SCOPED_TRACE(std::string(one.name) + ": " + row.what);
      ++id;
      for (const ipv6_piece& piece : row.arriving)
        receive("lan0", one.in(piece, id));
      const std::vector<bytes> sent = sent_on("wan0");
      ASSERT_EQ(sent.size(), row.leaving.size());
      for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_FRAME_EQ(sent[i], one.out(row.leaving[i], id).build());
      }
    }
  }
  pass(30000);
  EXPECT_TRUE(sent_on("lan0").empty()) << "no one is told of datagrams that have gone";
  EXPECT_TRUE(sent_on("wan0").empty());
}

// Tagged frames go back to the module as they came, tag and all.
TEST_F(fragment_offer_test, what_waits_keeps_its_link_header) {
  stack::device_config vlan;
  vlan.name = "lan0.9";
  vlan.link = stack::vlan_link{"lan0", 9};
  vlan.addresses = {prefix_of("192.168.9.1", 24)};
  config.devices.push_back(vlan);
  config.neighbours.push_back({"lan0.9", ip4("192.168.9.2"), config_mac(guest_mac)});
  start_with_module();
  const packet link = packet().eth(lan_mac, guest_mac).vlan(9, 3);
  ripen(packet(link).ipv4("192.168.9.2", server).udp(4000, 53).payload(8),
        from_gateway(server, "192.168.9.2").udp(53, 4000).payload(8));
  const bytes data = udp_from("192.168.9.2", 64);
  const auto piece = [&](packet under, ipv6_piece p) {
    return under.ipv4("192.168.9.2", server)
        .type(wire::ip_protocol::udp)
        .id(5)
        .fragment(p.start, p.end < data.size())
        .raw(std::span(data).subspan(p.start, p.end - p.start));
  };
  receive("lan0", piece(link, second));
  EXPECT_TRUE(sent_on("wan0").empty());
  EXPECT_EQ(receive("lan0", piece(link, first)), receive_verdict::fast);
  const std::vector<bytes> sent = sent_on("wan0");
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_FRAME_EQ(sent[0], piece(packet().eth(gateway_mac, wan_mac), first).build());
  EXPECT_FRAME_EQ(sent[1], piece(packet().eth(gateway_mac, wan_mac), second).build());
}

TEST_F(fragment_offer_test, what_waits_is_bounded_and_returned) {
  config.table_limits.datagrams_in_reassembly = 4;
  start_with_module();
  ripen(from_host6().udp(4000, 53).payload(8), from_gateway6().udp(53, 4000).payload(8));
  const packet link = packet().eth(lan_mac, host_mac);
  for (u32 id = 1; id <= 10; ++id)
    receive("lan0", ipv6_fragment(link, host6, server6, 9, datagram(120), last, id));
  EXPECT_EQ(router->statistics().reassembly_refused, 6U);
}

}  // namespace
}  // namespace tarvelo::test
