// SPDX-License-Identifier: GPL-2.0-only
//
// The learning bridge by itself: who is behind which port, what goes where, and what the fast path
// is told. The module here is a stand-in that records what it is given.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "kernel/fast_path.h"
#include "stack/bridge.h"
#include "tests/stack/bridge_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;
using names = std::vector<std::string>;

constexpr place lan0{"lan0"};
constexpr place lan1{"lan1"};
constexpr place vlan20{"lan2", 20};
constexpr place vlan21{"lan2", 21};
constexpr place vlan30{"lan3", 30};

struct stand_in {
  names told;  ///< "+ host port" and "- host"
  u32 offered = 0;
  u32 taken_off = 0;
  brc cached{};  ///< what a look-up in the bridge cache finds; nothing while `last_seen` is 0
  vok_ct_ext extension{};
};
stand_in seen;

void hear(vok_handle*, unsigned group, int type, net_bridge_fdb_entry* entry) {
  EXPECT_EQ(group, RTNLGRP_NEIGH);
  const u8 host = entry->addr[wire::mac_length - 1];
  seen.told.push_back(type == RTM_NEWNEIGH ? fmt::format("+ {} {}", host, entry->dst->dev->name)
                                           : fmt::format("- {}", host));
}

class bridge_report_test : public bridge_test {
 protected:
  bridge_report_test() {
    seen = {};
    handle.enable = 1;
    handle._vok_forward = [](vok_handle*, sk_buff*, unsigned long) {
      ++seen.offered;
      return -1;
    };
    handle._br_brc_notify = hear;
    handle._vok_brc_lkup_brid = [](vok_handle*, const u8*, u32) {
      return seen.cached.last_seen != 0 ? &seen.cached : nullptr;
    };
    handle._vok_ipc_delete_by_dev = [](vok_handle*, net_device*) { return 0; };
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
  ~bridge_report_test() override {
    router.reset();
    kcih = nullptr;
  }

  /// Where a frame for a host goes that comes from host 1 on lan0.
  names way_to(u8 number) {
    receive_at(lan0, between(number, 1, lan0));
    return ports_sent_on();
  }
  names told() { return std::exchange(seen.told, {}); }

  vok_handle handle{};
};

const names all_but_lan0 = {"lan1", "lan2", "lan2", "lan3"};

TEST_F(bridge_report_test, floods_until_it_has_learnt_where_a_host_is) {
  EXPECT_EQ(way_to(2), all_but_lan0);
  announce(2, lan1);
  EXPECT_EQ(way_to(2), names{"lan1"});
  announce(3, vlan20);
  EXPECT_EQ(way_to(3), names{"lan2"});
  announce(4, lan0);
  EXPECT_EQ(way_to(4), names{}) << "behind the port that the frame came from";
  EXPECT_EQ(told(), (names{"+ 1 lan0", "+ 2 lan1", "+ 3 lan2.20", "+ 4 lan0"}));
  EXPECT_EQ(router->statistics().slow_forwarded, 6U) << "with three announcements";
}

TEST_F(bridge_report_test, a_flooded_frame_has_the_tag_of_each_port) {
  receive_at(vlan20, between(2, 3, vlan20, 5));
  const auto frames = sent_on("lan2");
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_FRAME_EQ(frames.front(), between(2, 3, vlan21, 5).build());
  EXPECT_FRAME_EQ(only_frame_on("lan3"), between(2, 3, vlan30, 5).build());
  EXPECT_FRAME_EQ(only_frame_on("lan0"), between(2, 3, lan0).build());
  EXPECT_EQ(dev_stats(device("lan2.20")).rx_packets, 1U);
  EXPECT_EQ(dev_stats(device("lan2.21")).tx_packets, 1U);
  EXPECT_EQ(dev_stats(device("lan2.21")).tx_bytes, between(2, 3, lan0).build().size());
}

// A tag that names no VLAN device is the hosts' own business.
TEST_F(bridge_report_test, foreign_tags_pass_as_they_are_and_priority_tags_are_taken_off) {
  announce(1, lan0);
  announce(2, lan1);
  const place foreign{"lan0", 99};
  EXPECT_EQ(receive_at(foreign, between(2, 1, foreign, 3)), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan1"), between(2, 1, foreign, 3).build());
  EXPECT_EQ(seen.offered, 0U);

  const packet priority_only = packet()
                                   .eth(host_mac_of(2), host_mac_of(1))
                                   .vlan(0, 5)
                                   .ipv4(host_address(1), host_address(2))
                                   .udp(1000, 2000)
                                   .payload(30);
  EXPECT_EQ(receive_at(lan0, priority_only), receive_verdict::slow);
  EXPECT_FRAME_EQ(only_frame_on("lan1"), between(2, 1, lan0).build());
}

// The router has no use for most of what goes to groups; the hosts may.
TEST_F(bridge_report_test, what_is_for_a_group_goes_to_everyone) {
  const char* const groups[] = {everyone_mac, "01:00:5e:00:00:fb", "33:33:00:00:00:01"};
  for (const char* group : groups) {
    const packet frame =
        link_header(lan0, group, host_mac_of(1)).ipv4(host_address(1), "224.0.0.251").udp(1, 2);
    EXPECT_EQ(receive_at(lan0, frame), receive_verdict::slow) << group;
    EXPECT_EQ(ports_sent_on(), all_but_lan0);
  }
  EXPECT_EQ(router->statistics().dropped, 0U);
}

TEST_F(bridge_report_test, what_finds_no_room_is_flooded_and_not_learnt) {
  router.reset();
  config.table_limits.bridge_hosts = 2;
  start();
  announce(1, lan0);
  announce(2, lan1);
  announce(3, vlan20);
  EXPECT_EQ(told(), (names{"+ 1 lan0", "+ 2 lan1"}));
  EXPECT_EQ(way_to(3), all_but_lan0);
  EXPECT_EQ(receive_at(vlan20, between(1, 3, vlan20)), receive_verdict::slow);
  EXPECT_EQ(ports_sent_on(), names{"lan0"});
}

TEST_F(bridge_report_test, loops_and_frames_for_no_one_are_dropped) {
  announce(1, lan0);
  const auto from_to = [](std::string_view from, std::string_view to) {
    return packet().eth(to, from).ipv4("192.168.1.1", "192.168.1.2").udp(1, 2);
  };
  const packet rows[] = {
      from_to(bridge_mac, host_mac_of(1)),          from_to("02:00:00:00:01:11", host_mac_of(1)),
      from_to(host_mac_of(2), "01:80:c2:00:00:00"), from_to(host_mac_of(2), "01:80:c2:00:00:0e"),
      from_to(host_mac_of(1), "02:00:00:00:01:11"), from_to("00:00:00:00:00:00", host_mac_of(2)),
      from_to(everyone_mac, host_mac_of(1)),
  };
  for (const packet& row : rows)
    EXPECT_EQ(receive_at(lan0, row), receive_verdict::dropped) << describe(row.build());
  EXPECT_EQ(ports_sent_on(), names{});
}

TEST_F(bridge_report_test, a_host_that_moves_is_found_at_its_new_place) {
  announce(2, lan1);
  announce(2, vlan20);
  EXPECT_EQ(way_to(2), names{"lan2"});
  announce(2, vlan30);
  EXPECT_EQ(way_to(2), names{"lan3"});
  EXPECT_EQ(told(), (names{"+ 2 lan1", "+ 2 lan2.20", "+ 1 lan0", "- 2"}))
      << "the module cannot follow it to the port that keeps its tags";
  announce(2, lan1);
  EXPECT_EQ(told(), names{"+ 2 lan1"});
}

TEST_F(bridge_report_test, connections_leave_the_fast_path_when_a_host_moves_or_goes) {
  announce(2, lan1);
  receive("wan0", packet()
                      .eth(wan_mac, gateway_mac)
                      .vlan(7)
                      .ipv4(server, host_address(2))
                      .udp(53, 4000)
                      .payload(8));
  EXPECT_EQ(router->statistics().connections, 1U);
  EXPECT_EQ(seen.taken_off, 0U);
  announce(2, lan1);
  EXPECT_EQ(seen.taken_off, 0U) << "nothing has changed";
  announce(2, lan0);
  EXPECT_EQ(seen.taken_off, 1U);
  router->set_link(device("lan0"), false);
  EXPECT_GE(seen.taken_off, 2U);
}

TEST_F(bridge_report_test, a_silent_host_is_forgotten) {
  announce(1, lan0);
  announce(2, lan1);
  seen.cached.last_seen = jiffies - 0x90000000;  // by the fast path, weeks ago
  const u32 just_not = stack::bridge_ageing_time - 1;
  pass(just_not);
  announce(1, lan0);
  EXPECT_EQ(way_to(2), names{"lan1"});
  static_cast<void>(told());
  pass(1 + stack::bridge_ageing_step);
  EXPECT_EQ(told(), names{"- 2"});
  EXPECT_EQ(way_to(2), all_but_lan0);
}

TEST_F(bridge_report_test, a_host_that_the_fast_path_hears_is_not_forgotten) {
  announce(1, lan0);
  announce(2, lan1);
  static_cast<void>(told());
  pass(stack::bridge_ageing_time / 2);
  seen.cached.last_seen = jiffies;
  // Host 1 is heard by what it sends to the router, which the fast path may route.
  receive_at(lan0, link_header(lan0, bridge_mac, host_mac_of(1)).type(0x0800));
  EXPECT_EQ(seen.offered, 1U);
  pass(stack::bridge_ageing_time / 2 + 2 * stack::bridge_ageing_step);
  EXPECT_EQ(told(), names{});
  EXPECT_EQ(way_to(2), names{"lan1"});
  pass(stack::bridge_ageing_time);
  EXPECT_EQ(told().size(), 2U);
}

// The module compares instants that are less than 2^31 milliseconds apart.
TEST_F(bridge_report_test, a_host_that_is_known_for_weeks_is_reported_anew) {
  const auto live_for = [this](u32 milliseconds) {
    for (u32 lived = 0; lived < milliseconds; lived += stack::bridge_ageing_time / 2) {
      announce(1, lan0);
      announce(2, lan1);
      pass(stack::bridge_ageing_time / 2);
    }
  };
  live_for(stack::bridge_renewal_time - stack::bridge_ageing_time);
  names once = {"+ 1 lan0", "+ 2 lan1"};
  EXPECT_EQ(told(), once);
  live_for(2 * stack::bridge_ageing_time);
  names again = told();
  std::ranges::sort(again);
  once.insert(once.end(), {"- 1", "- 2"});
  EXPECT_EQ(again, once);
  live_for(2 * stack::bridge_ageing_time);
  EXPECT_EQ(told(), names{});
}

TEST_F(bridge_report_test, a_port_that_goes_down_takes_its_hosts_along) {
  announce(1, lan0);
  announce(2, lan1);
  announce(3, vlan20);
  announce(4, vlan21);
  static_cast<void>(told());
  router->set_link(device("lan2"), false);
  names gone = told();
  std::sort(gone.begin(), gone.end());
  EXPECT_EQ(gone, (names{"- 3", "- 4"}));
  EXPECT_EQ(way_to(3), (names{"lan1", "lan3"}));
  EXPECT_EQ(receive_at(vlan20, between(1, 3, vlan20)), receive_verdict::dropped);
  router->set_link(device("lan2"), true);
  EXPECT_EQ(way_to(3), all_but_lan0);
  EXPECT_EQ(receive_at(vlan20, between(1, 3, vlan20)), receive_verdict::slow);
}

TEST_F(bridge_report_test, the_module_is_told_of_every_host_when_the_router_ends) {
  announce(1, lan0);
  announce(2, vlan30);
  EXPECT_EQ(told(), names{"+ 1 lan0"});
  router.reset();
  EXPECT_EQ(told(), names{"- 1"});
}

struct offer_row {
  const char* name;
  place at;
  u8 from;
  std::string to;
  bool offered;
};

TEST_F(bridge_report_test, offers_what_goes_from_a_known_host_to_a_known_host_or_the_router) {
  announce(1, lan0);
  announce(2, lan1);
  announce(3, vlan20);
  announce(4, vlan30);
  announce(5, lan0);
  const offer_row rows[] = {
      {"to a host behind another port", lan0, 1, host_mac_of(2), true},
      {"to a VLAN", lan0, 1, host_mac_of(3), true},
      {"from a VLAN", vlan20, 3, host_mac_of(1), true},
      {"to the bridge", lan0, 1, bridge_mac, true},
      {"to the bridge from a VLAN", vlan20, 3, bridge_mac, true},
      {"to the port itself", lan0, 1, "02:00:00:00:01:10", true},
      {"to another port", lan0, 1, "02:00:00:00:01:11", false},
      {"to a host behind the same port", lan0, 1, host_mac_of(5), false},
      {"to an unknown host", lan0, 1, host_mac_of(77), false},
      {"to a group", lan0, 1, everyone_mac, false},
      {"to a port that keeps its tags", lan0, 1, host_mac_of(4), false},
      {"from a port that keeps its tags", vlan30, 4, host_mac_of(1), false},
      {"from an unknown host", lan0, 78, host_mac_of(2), false},
      {"from an unknown host to the bridge", lan0, 79, bridge_mac, false},
      {"from a host that has moved", lan1, 1, host_mac_of(3), false},
  };
  for (const offer_row& row : rows) {
    seen.offered = 0;
    const packet frame = link_header(row.at, row.to, host_mac_of(row.from))
                             .ipv4(host_address(row.from), server)
                             .udp(1, 2);
    receive_at(row.at, frame);
    EXPECT_EQ(seen.offered, row.offered ? 1U : 0U) << row.name;
  }
}

TEST_F(bridge_report_test, the_router_answers_on_its_bridge_and_finds_hosts_through_it) {
  announce(3, vlan20);
  receive_at(vlan20, link_header(vlan20, everyone_mac, host_mac_of(3))
                         .arp(wire::arp_op::request, host_mac_of(3), host_address(3),
                              "00:00:00:00:00:00", lan_address));
  const names ports = {"lan0", "lan1", "lan2", "lan2", "lan3"};
  EXPECT_EQ(ports_sent_on(), ports) << "the flooded request, and the answer on lan2";
  receive_at(vlan20, link_header(vlan20, bridge_mac, host_mac_of(3))
                         .ipv4(host_address(3), lan_address)
                         .icmp(8, 0, 1, 1));
  const bytes answer = only_frame_on("lan2");
  ASSERT_TRUE(sound_frame(answer));
  EXPECT_EQ(layout_of(answer).tci, 20);
  EXPECT_EQ(mac_text(eth_of(answer).h_source), bridge_mac);
  EXPECT_EQ(dev_stats(device("br0")).rx_packets, 3U);
}

}  // namespace
}  // namespace tarvelo::test
