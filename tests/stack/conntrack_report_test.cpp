// SPDX-License-Identifier: GPL-2.0-only
//
// What the module is told, and how connections end.
#include <thread>

#include "kernel/fault.h"
#include "stack/router.h"
#include "tests/stack/tracker_fixture.h"

namespace tarvelo::test {
namespace {

packet udp_packet(const char* source, u16 sport, const char* destination, u16 dport) {
  return packet().ipv4(source, destination).udp(sport, dport).payload(5);
}

class conntrack_report : public tracker_test {
 protected:
  conntrack_report() {
    config.forwards = {{"wan0", wire::ip_protocol::udp, 5353, ip4(server), 53}};
  }
  ~conntrack_report() override { tracker().module_going(); }

  /// One exchange: a first packet, an answer, and the first again.
  void exchange(const packet& first, const packet& answer, bool from_inside) {
    net_device* from = from_inside ? lan : wan;
    net_device* to = from_inside ? wan : lan;
    forward(first, from, to);
    forward(answer, to, from);
    last = forward(first, from, to);
  }

  note_taking_module module;
  passage last{};
};

struct expected_add {
  unsigned hook;
  int info;
  const char* dev;
  const char* rx_dev;
  bool as_reply;
  const char* translated;
  packet as_it_stood;
};

void expect_adds(const std::vector<note_taking_module::add>& actual,
                 const std::vector<expected_add>& expected, const std::string& what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (std::size_t n = 0; n < actual.size(); ++n) {
    SCOPED_TRACE(what + ", report " + std::to_string(n));
    EXPECT_EQ(actual[n].hook, expected[n].hook);
    EXPECT_EQ(actual[n].info, expected[n].info);
    EXPECT_EQ(actual[n].dev, expected[n].dev);
    EXPECT_EQ(actual[n].rx_dev, expected[n].rx_dev);
    EXPECT_EQ(actual[n].as_reply, expected[n].as_reply);
    EXPECT_EQ(actual[n].translated, expected[n].translated);
    expect_packet(actual[n].packet, expected[n].as_it_stood, "as it stood");
  }
}

constexpr unsigned pre = NF_INET_PRE_ROUTING;
constexpr unsigned post = NF_INET_POST_ROUTING;

TEST_F(conntrack_report, source_translation) {
  config.masquerade = {"wan0"};
  const packet first = udp_packet(host, 40000, peer, 53);
  const packet answer = udp_packet(peer, 53, router_address, 40000);
  exchange(first, answer, true);
  const char* source = "203.0.113.9:40000>198.51.100.7:53";
  expect_adds(module.adds,
              {{post, IP_CT_NEW, "wan0", "lan0", false, source, first},
               {pre, IP_CT_ESTABLISHED_REPLY, "wan0", "wan0", false,
                "198.51.100.7:53>192.168.1.2:40000", answer},
               {post, IP_CT_ESTABLISHED, "wan0", "lan0", false, source, first}},
              "source translation");
  EXPECT_EQ(last.fast_flags & fast_flag::add_as_reply, 0U);
}

TEST_F(conntrack_report, destination_translation) {
  const packet first = udp_packet(peer, 40000, router_address, 5353);
  const packet answer = udp_packet(server, 53, peer, 40000);
  exchange(first, answer, false);
  const char* destination = "198.51.100.7:40000>192.168.1.3:53";
  expect_adds(module.adds,
              {{pre, IP_CT_NEW, "wan0", "wan0", false, destination, first},
               {post, IP_CT_ESTABLISHED_REPLY, "wan0", "lan0", true,
                "203.0.113.9:5353>198.51.100.7:40000", answer},
               {pre, IP_CT_ESTABLISHED, "wan0", "wan0", false, destination, first}},
              "destination translation");
}

TEST_F(conntrack_report, no_translation) {
  const packet first = udp_packet(host, 40000, peer, 53);
  const packet answer = udp_packet(peer, 53, host, 40000);
  exchange(first, answer, true);
  expect_adds(module.adds,
              {{post, IP_CT_NEW, "wan0", "lan0", false, "-", first},
               {post, IP_CT_ESTABLISHED_REPLY, "lan0", "wan0", true, "-", answer},
               {post, IP_CT_ESTABLISHED, "wan0", "lan0", false, "-", first}},
              "no translation");
}

TEST_F(conntrack_report, translation_at_both_ends_is_reported_at_both) {
  config.masquerade = {"lan0"};
  const packet first = udp_packet(peer, 40000, router_address, 5353);
  exchange(first, udp_packet(server, 53, "192.168.1.1", 40000), false);
  ASSERT_EQ(module.adds.size(), 6U);
  EXPECT_EQ(module.adds[0].hook, pre);
  EXPECT_EQ(module.adds[1].hook, post);
  EXPECT_EQ(module.adds[1].translated, "192.168.1.1:40000>192.168.1.3:53");
  EXPECT_EQ(module.adds[2].translated, "192.168.1.3:53>198.51.100.7:40000");
  EXPECT_FALSE(module.adds[2].as_reply);
  EXPECT_TRUE(module.adds[3].as_reply);
}

TEST_F(conntrack_report, leaves_out_what_the_module_cannot_carry) {
  outward(packet().ipv4(host, peer).icmp(wire::icmp_type::echo_request, 0, 1, 1));
  outward(packet().ipv4(host, peer).type(47).payload(8));
  to_router(udp_packet(peer, 1, router_address, 2));
  outward(packet().ipv4(host, peer).tcp(1, 2).flags(wire::tcp_flag::syn));
  inward(packet().ipv4(peer, host).tcp(2, 1).flags(wire::tcp_flag::ack));
  inward(packet().ipv4(peer, host).tcp(2, 1).flags(wire::tcp_flag::syn));
  inward(packet().ipv4(peer, host).tcp(2, 1).flags(wire::tcp_flag::ack));
  EXPECT_EQ(module.adds.size(), 1U) << "none of these accepts the connection";
  EXPECT_TRUE(module.deletes.empty());
  outward(packet().ipv4(host, peer).tcp(1, 2).flags(wire::tcp_flag::rst));
  EXPECT_EQ(module.deletes.size(), 1U) << "late segments would keep a reset connection";
  outward(packet().ipv4(host, peer).tcp(1, 2).flags(wire::tcp_flag::ack));
  EXPECT_EQ(module.adds.size(), 1U) << "a closed connection would be cached again";
}

TEST_F(conntrack_report, rules_mark_helpers_and_slow_connections) {
  config.helpers = {{{wire::ip_protocol::udp, 69}, "tftp"}};
  config.slow = {{wire::ip_protocol::udp, 5060}};
  const struct {
    u16 port;
    const char* helper;
    u32 flags;
  } rows[] = {{69, "tftp", 0}, {5060, nullptr, ct_ext_flag::never_add}, {53, nullptr, 0}};
  for (const auto& row : rows) {
    stack::track_verdict verdict;
    sk_buff* skb = carry(udp_packet(host, 40000, peer, row.port), lan, wan, &verdict);
    const nf_conn* ct = nf_ct_of(skb->nfct);
    EXPECT_STREQ(ct->helper, row.helper);
    EXPECT_EQ(ct->vok_ext->flags, row.flags);
    in_softirq([&] { kfree_skb(skb); });
  }
}

TEST_F(conntrack_report, every_end_is_reported_confirmed_or_not) {
  outward(udp_packet(host, 40000, peer, 53));
  EXPECT_EQ(module.records, 1);
  pass(29'999);
  EXPECT_TRUE(module.deletes.empty());
  pass(1);
  EXPECT_EQ(module.deletes, std::vector<std::string>{"192.168.1.2:40000>198.51.100.7:53"});
  EXPECT_EQ(module.records, 0);

  // A packet that is lost between the hooks takes its connection with it.
  sk_buff* skb = make_skb(udp_packet(host, 1, peer, 2).build(), lan);
  in_softirq([&] {
    {
      const stack::stack_guard guard;
      ASSERT_EQ(tracker().pre_routing(skb), stack::track_verdict::accept);
    }
    kfree_skb(skb);
  });
  EXPECT_EQ(module.deletes.size(), 2U);
  EXPECT_EQ(module.records, 0);
  EXPECT_EQ(tracker().statistics().made, 1U);
}

TEST_F(conntrack_report, fast_path_keeps_a_connection_alive_by_its_timer) {
  stack::track_verdict verdict;
  sk_buff* skb = carry(udp_packet(host, 40000, peer, 53), lan, wan, &verdict);
  nf_conn* ct = nf_ct_of(skb->nfct);
  pass(20'000);
  nf_ct_refresh_pending(ct, jiffies + 30'000);
  pass(29'999);
  EXPECT_EQ(tracker().statistics().connections, 1U);
  pass(1);
  EXPECT_EQ(tracker().statistics().connections, 0U);
  EXPECT_NE(ct->status & IPS_DYING, 0U);

  // The last reference goes on another processor, while the stack is busy.
  {
    const stack::stack_guard busy;
    std::thread([&] { kfree_skb(skb); }).join();
  }
  EXPECT_EQ(module.deletes.size(), 1U);
  EXPECT_EQ(module.records, 0);
}

/// Packet workers drop last references while timers run out and the module goes.
TEST_F(conntrack_report, ends_on_several_processors_at_once) {
  constexpr u32 rounds = 20;
  constexpr u32 connections = 50;
  u64 made = 0;
  for (u32 round = 0; round < rounds; ++round) {
    std::vector<sk_buff*> held;
    for (u16 port = 1; port <= connections; ++port) {
      stack::track_verdict verdict;
      held.push_back(carry(udp_packet(host, port, peer, 53), lan, wan, &verdict));
      ASSERT_EQ(verdict, stack::track_verdict::accept);
    }
    made += held.size();
    std::thread worker([&held] {
      for (sk_buff* skb : held)
        kfree_skb(skb);
    });
    std::thread timers([] { pass(30'000); });
    tracker().module_going();
    tracker().module_live();
    worker.join();
    timers.join();
    EXPECT_EQ(tracker().statistics().connections, 0U);
  }
  EXPECT_EQ(module.records, 0);
  EXPECT_GE(module.deletes.size(), made) << "an end was not reported";
}

/// The module knows entries by their addresses only: what is said of the old connection once the
/// new one is there would hit the new one's.
TEST_F(conntrack_report, a_connection_that_another_replaces_is_forgotten_before_it) {
  using namespace wire::tcp_flag;
  const packet opening = packet().ipv4(host, peer).tcp(1, 2).flags(syn);
  stack::track_verdict verdict;
  sk_buff* waiting = carry(opening, lan, wan, &verdict);
  const nf_conn* old = nf_ct_of(waiting->nfct);
  outward(packet().ipv4(host, peer).tcp(1, 2).flags(rst));
  EXPECT_NE(old->vok_ext, nullptr);
  EXPECT_EQ(module.deletes.size(), 1U);

  ASSERT_FALSE(outward(opening).dropped);
  EXPECT_EQ(module.deletes.size(), 2U);
  EXPECT_EQ(old->vok_ext, nullptr) << "its end would take the new connection off the fast path";
  EXPECT_EQ(module.records, 1);
  in_softirq([&] { kfree_skb(waiting); });
  EXPECT_EQ(module.records, 1);
}

TEST_F(conntrack_report, answered_udp_lasts_longer) {
  exchange(udp_packet(host, 40000, peer, 53), udp_packet(peer, 53, host, 40000), true);
  pass(179'999);
  EXPECT_EQ(tracker().statistics().connections, 1U);
  pass(1);
  EXPECT_EQ(tracker().statistics().connections, 0U);
}

TEST_F(conntrack_report, full_table_refuses_newcomers_only) {
  config.table_limits.connections = 2;
  EXPECT_FALSE(outward(udp_packet(host, 1, peer, 53)).dropped);
  EXPECT_FALSE(outward(udp_packet(host, 2, peer, 53)).dropped);
  EXPECT_TRUE(outward(udp_packet(host, 3, peer, 53)).dropped);
  EXPECT_FALSE(inward(udp_packet(peer, 53, host, 1)).dropped);
  EXPECT_EQ(tracker().statistics().refused, 1U);
  pass(30'000);
  EXPECT_FALSE(outward(udp_packet(host, 3, peer, 53)).dropped);
}

TEST_F(conntrack_report, want_of_memory_refuses_or_leaves_slow) {
  const packet first = udp_packet(host, 1, peer, 53);
  for (u32 failing = 2;; ++failing) {  // the first is the packet's own buffer
    fault::fail_allocation(failing);
    const passage result = outward(first);
    const bool fired = fault::fired();
    fault::fail_allocation(0);
    if (!fired) break;
    EXPECT_EQ(result.dropped, module.records == 0 && tracker().statistics().connections == 0);
    pass(30'000);
  }
  EXPECT_GE(tracker().statistics().refused, 1U);
}

TEST_F(conntrack_report, changed_path_lets_connections_be_added_anew) {
  module.on_add = [](nf_conn* ct) {
    ct->vok_ext->flags |= ct_ext_flag::direction_marks | ct_ext_flag::ever_added;
    ct->vok_ext->double_nat = 1;
  };
  stack::track_verdict verdict;
  sk_buff* skb = carry(udp_packet(host, 40000, peer, 53), lan, wan, &verdict);
  vok_ct_ext* ext = nf_ct_of(skb->nfct)->vok_ext;
  ext->dev = lan;
  ext->vlan[1].real_dev = wan;
  const auto change = [&](net_device* dev, bool gone) {
    const stack::stack_guard guard;
    tracker().path_changed(dev, gone);
  };

  fake_device stranger("other0");
  change(stranger, true);
  EXPECT_TRUE(module.deletes.empty());
  EXPECT_NE(ext->flags, ct_ext_flag::ever_added);

  change(wan, false);
  EXPECT_EQ(module.deletes.size(), 1U);
  EXPECT_EQ(ext->flags, ct_ext_flag::ever_added);
  EXPECT_EQ(ext->double_nat, 1);
  EXPECT_EQ(ext->vlan[1].real_dev, wan.get());

  change(wan, true);
  EXPECT_EQ(ext->vlan[1].real_dev, nullptr);
  EXPECT_EQ(ext->dev, lan.get());
  change(wan, true);
  EXPECT_EQ(module.deletes.size(), 2U) << "nothing names the device any more";
  in_softirq([&] { kfree_skb(skb); });
}

TEST_F(conntrack_report, module_that_goes_gets_every_record_back) {
  outward(udp_packet(host, 1, peer, 53));
  stack::track_verdict verdict;
  sk_buff* held = make_skb(udp_packet(host, 2, peer, 53).build(), lan);
  {
    const stack::stack_guard guard;
    verdict = tracker().pre_routing(held);
  }
  EXPECT_EQ(verdict, stack::track_verdict::accept);
  EXPECT_EQ(module.records, 2);
  tracker().module_going();
  EXPECT_EQ(module.records, 0);
  EXPECT_EQ(module.deletes.size(), 2U);

  outward(udp_packet(host, 3, peer, 53));
  EXPECT_EQ(module.records, 0) << "made after the module has gone";
  tracker().module_live();
  outward(udp_packet(host, 4, peer, 53));
  EXPECT_EQ(module.records, 1);
  in_softirq([&] { kfree_skb(held); });
}

TEST_F(conntrack_report, rules_that_cannot_work_are_refused) {
  config.masquerade = {"wan1"};
  EXPECT_THROW(tracker(), stack::setup_error);
  config.masquerade = {"wan0"};
  config.devices[1].addresses.clear();
  EXPECT_THROW(tracker(), stack::setup_error);
  config.devices[1].addresses = config.devices[0].addresses;
}

}  // namespace
}  // namespace tarvelo::test
