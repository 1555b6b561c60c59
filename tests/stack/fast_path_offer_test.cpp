// SPDX-License-Identifier: GPL-2.0-only
//
// Which frames the router offers to the fast path, in which state, and what it does with the
// answer. The module here is a stand-in that records what it is given.
#include <cstring>

#include "kernel/fast_path.h"
#include "kernel/module_loader.h"
#include "kernel/route.h"
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

struct offered_frame {
  bytes data;
  std::string dev;
  std::string rx_dev;
  u32 fast_flags;
  u32 headroom;
  bool bare;  ///< neither connection nor route
};

struct module_record {
  int answer = -1;  ///< 0: takes the frame
  std::vector<offered_frame> offered;
  std::vector<std::string> swept;
  u32 taken_off = 0;  ///< delete calls
  vok_ct_ext extension{};
};
module_record seen;

int take_offer(vok_handle*, sk_buff* skb, unsigned long) {
  seen.offered.push_back({bytes_of(skb), skb->dev->name,
                          skb->rx_dev != nullptr ? skb->rx_dev->name : "", skb->fast_flags,
                          skb_headroom(skb), skb->nfct == nullptr && skb_dst(skb) == nullptr});
  if (seen.answer == 0) kfree_skb(skb);
  return seen.answer;
}

int sweep(vok_handle*, net_device* dev) {
  seen.swept.emplace_back(dev->name);
  return 0;
}

class fast_path_offer_test : public router_test {
 protected:
  fast_path_offer_test() {
    seen = {};
    handle.enable = 1;
    handle._vok_forward = take_offer;
    handle._vok_ipc_delete_by_dev = sweep;
    handle._ip_conntrack_ipct_add = [](vok_handle*, sk_buff*, unsigned, nf_conn*, int,
                                       const nf_conntrack_tuple*) {};
    handle._ip_conntrack_ipct_delete = [](vok_handle*, nf_conn*) {
      ++seen.taken_off;
      return 0;
    };
    handle._vok_nf_conntrack_ext_alloc = [](nf_conn* ct) {
      ct->vok_ext = &seen.extension;
      return 0;
    };
    handle._vok_nf_conntrack_ext_free = [](nf_conn* ct) {
      ct->vok_ext = nullptr;
      return 0;
    };
    kcih = &handle;
    start();
  }
  ~fast_path_offer_test() override {
    router.reset();
    kcih = nullptr;
  }

  static bytes frame() { return from_host().udp(4000, 53).payload(8).build(); }

  vok_handle handle{};
};

TEST_F(fast_path_offer_test, a_frame_for_the_router_is_offered_as_it_came) {
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::slow);
  ASSERT_EQ(seen.offered.size(), 1U);
  const offered_frame& offer = seen.offered.front();
  EXPECT_FRAME_EQ(offer.data, frame());
  EXPECT_EQ(offer.dev, "lan0");
  EXPECT_EQ(offer.rx_dev, "lan0");
  EXPECT_EQ(offer.fast_flags, 0U);
  EXPECT_GE(offer.headroom, receive_headroom);
  EXPECT_TRUE(offer.bare);
  EXPECT_EQ(ipv4_of(only_frame_on("wan0")).ttl, ipv4_of(frame()).ttl - 1) << "handed back";
}

TEST_F(fast_path_offer_test, a_frame_that_is_taken_is_gone) {
  seen.answer = 0;
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::fast);
  EXPECT_TRUE(sent_on("wan0").empty());
  EXPECT_EQ(router->statistics().offered, 1U);
  EXPECT_EQ(router->statistics().fast, 1U);
  EXPECT_EQ(router->statistics().connections, 0U);
}

TEST_F(fast_path_offer_test, every_kind_of_frame_for_the_router_is_offered) {
  const packet rows[] = {
      from_host().type(17).fragment(8, false).payload(8),
      packet().eth(lan_mac, host_mac).vlan(7).ipv4(host, server).udp(1, 2),
      packet().eth(lan_mac, host_mac).ipv6("2001:db8::1", "2001:db8::2").udp(1, 2),
      from_host().version_ihl(0xFF),
      packet().eth(lan_mac, host_mac).type(0x0800),
  };
  seen.answer = 0;
  for (const packet& row : rows)
    EXPECT_EQ(receive("lan0", row), receive_verdict::fast);
}

TEST_F(fast_path_offer_test, strangers_and_groups_are_not_offered) {
  seen.answer = 0;
  const auto frame_between = [](const char* to, const char* from) {
    return packet().eth(to, from).ipv4(host, server).udp(1, 2).payload(8);
  };
  EXPECT_EQ(receive("lan0", frame_between(host_mac, gateway_mac)), receive_verdict::dropped);
  EXPECT_EQ(receive("lan0", frame_between(wan_mac, host_mac)), receive_verdict::dropped);
  EXPECT_EQ(receive("lan0", frame_between(everyone_mac, host_mac)), receive_verdict::dropped);
  EXPECT_EQ(receive("lan0", frame_between(lan_mac, lan_mac)), receive_verdict::dropped);
  EXPECT_EQ(receive("lan0", bytes(13, 0)), receive_verdict::dropped);
  const packet no_session = packet().eth(lan_mac, host_mac).pppoe(5).ipv4(host, server).udp(1, 2);
  EXPECT_EQ(receive("lan0", no_session), receive_verdict::dropped);
  EXPECT_TRUE(seen.offered.empty());
}

// Without an Ethernet header the two bytes that would be its type are the first of the source
// address: 8.0.x.y, 8.6.x.y (ARP, which the module does not know), 129.0.x.y and so on.
TEST_F(fast_path_offer_test, raw_packets_are_offered_unless_they_look_like_frames) {
  const struct {
    const char* source;
    bool offered;
  } rows[] = {{tunnel_peer, true},    {"8.0.1.2", false},     {"129.0.1.2", false},
              {"134.221.1.2", false}, {"136.100.1.2", false}, {"8.6.1.2", true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.source);
    seen.offered.clear();
    EXPECT_EQ(receive("tun0", packet().ipv4(row.source, host).udp(1, 2).payload(8)),
              receive_verdict::slow);
    EXPECT_EQ(!seen.offered.empty(), row.offered);
  }
}

TEST_F(fast_path_offer_test, nothing_is_offered_while_the_fast_path_or_the_device_is_off) {
  handle.enable = 0;
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::slow);
  handle.enable = 1;
  router->set_link(device("lan0"), false);
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::dropped);
  EXPECT_TRUE(seen.offered.empty());
  router->set_link(device("lan0"), true);
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::slow);
  EXPECT_EQ(seen.offered.size(), 1U);
}

TEST_F(fast_path_offer_test, a_device_is_swept_when_it_goes_down_and_when_it_goes_away) {
  router->set_link(device("wan0"), false);
  EXPECT_EQ(seen.swept, std::vector<std::string>{"wan0"});
  seen.swept.clear();
  router.reset();
  EXPECT_EQ(seen.swept, (std::vector<std::string>{"lan0", "wan0", "tun0"}));
}

// The fast path keeps copies of hardware addresses.
TEST_F(fast_path_offer_test, connections_leave_the_fast_path_when_their_next_hop_moves) {
  const auto announce = [&](const char* mac) {
    receive("lan0",
            packet()
                .eth(everyone_mac, mac)
                .arp(wire::arp_op::request, mac, "192.168.1.3", "00:00:00:00:00:00", lan_address));
  };
  announce("02:00:00:00:01:03");
  receive("wan0", from_gateway(server, "192.168.1.3").udp(53, 4000).payload(8));
  EXPECT_EQ(sent_on("lan0").size(), 2U);
  announce("02:00:00:00:01:03");
  EXPECT_EQ(seen.taken_off, 0U) << "nothing has changed";
  announce("02:00:00:00:01:33");
  EXPECT_EQ(seen.taken_off, 1U);
}

// The module does not look at the header's checksum, and takes a FIN in such a packet for the end.
TEST_F(fast_path_offer_test,
       an_end_with_a_broken_ip_header_takes_its_connection_off_the_fast_path) {
  const packet fin = from_host().tcp(4000, 80).flags(wire::tcp_flag::fin | wire::tcp_flag::ack);
  EXPECT_EQ(receive("lan0", packet(fin).flags(wire::tcp_flag::syn)), receive_verdict::slow);
  const struct {
    packet broken;
    u32 taken_off;
  } rows[] = {{from_host().ip_checksum(1).tcp(4000, 80).flags(wire::tcp_flag::ack), 0},
              {from_host().ip_checksum(1).tcp(4001, 80).flags(wire::tcp_flag::rst), 0},
              {from_host().ip_checksum(1).fragment(0, true).tcp(4000, 80), 0},
              {from_host().ip_checksum(1).tcp(4000, 80).flags(wire::tcp_flag::rst), 1}};
  for (const auto& row : rows) {
    seen.taken_off = 0;
    EXPECT_EQ(receive("lan0", row.broken), receive_verdict::dropped);
    EXPECT_EQ(seen.taken_off, row.taken_off);
  }
}

/// A module whose handle is the fixture's.
class module_life_test : public fast_path_offer_test {
 protected:
  module_life_test() {
    router.reset();
    kcih = nullptr;
    seen = {};
    start();
  }
  static int init() {
    kcih = &self->handle;
    return 0;
  }
  /// The handle is still published when the module begins to go: a frame that comes now must not be
  /// offered any more.
  static void exit() {
    self->receive("lan0", frame());
    offered_late = seen.offered.size();
    kcih = nullptr;
    synchronize_rcu();
  }

  static inline module_life_test* self = nullptr;
  static inline std::size_t offered_late = 0;
};

TEST_F(module_life_test, frames_are_offered_from_its_coming_until_it_begins_to_go) {
  self = this;
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::slow);
  EXPECT_TRUE(seen.offered.empty());

  module record{"stand-in", {}};
  std::string error;
  auto loaded = loaded_module::load_linked(init, exit, &record, &error);
  ASSERT_NE(loaded, nullptr) << error;
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::slow);
  EXPECT_EQ(seen.offered.size(), 1U);

  loaded.reset();
  EXPECT_EQ(offered_late, 1U);
  EXPECT_EQ(receive("lan0", frame()), receive_verdict::slow);
  EXPECT_EQ(seen.offered.size(), 1U);
}

}  // namespace
}  // namespace tarvelo::test
