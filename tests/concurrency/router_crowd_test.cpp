// SPDX-License-Identifier: GPL-2.0-only
//
// A router with a device of every kind: packet workers carry connections of all kinds while links
// fail, hosts and neighbours move, time passes, control files are read and written, hooks come and
// go, and the module is unloaded and loaded again under all of it.
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <mutex>
#include <thread>

#include "fuzz/fuzzed_router.h"
#include "kernel/context.h"
#include "kernel/fast_path.h"
#include "kernel/jiffies.h"
#include "kernel/proc_tree.h"
#include "kernel/rcupdate.h"
#include "tarvelo/hook.h"
#include "tests/concurrency/crowd.h"
#include "tests/support/module_invariants.h"

namespace tarvelo::test {
namespace {

using fuzz::sent_frame;

constexpr u16 first_port = 50000;
constexpr u16 ports = 24;
/// As many as make a new connection ripe, so that it is fast for the rest of a burst.
constexpr unsigned burst = 40;
constexpr unsigned packet_workers = 3;
/// Longer than any timer of the stack runs, tracked connections included.
constexpr u32 all_is_forgotten = 10U * 24 * 3600 * HZ;

constexpr const char* host_mac = "02:00:00:00:01:02";
constexpr const char* lan_mac = "02:00:00:00:01:01";
constexpr const char* gateway_mac = "02:00:00:00:02:02";
constexpr const char* wan_mac = "02:00:00:00:02:01";

constexpr const char* links[] = {"lan0", "lan1",   "lan2", "lan3", "lan3.20", "br0",
                                 "wan0", "wan0.7", "ppp0", "ppp1", "ppp2",    "tun0"};
constexpr const char* readable[] = {
    "vok/ipc_info",  "vok/ipc_v6_info",  "vok/brc_info",
    "vok/ipc_count", "vok/ipc_v6_count", "vok/statistics_info",
    "vok/enable",    "vok/version",      "vok/statistics_forward_ipv6_packet_num"};

/// Frames that belong together: a burst takes some of them, in any order.
using exchange = std::vector<sent_frame>;

[[nodiscard]] packet outward(u16 port) {
  return packet().eth(lan_mac, host_mac).ipv4("192.168.1.2", "198.51.100.7").tcp(port, 80);
}
[[nodiscard]] packet inward(u16 port) {
  return packet().eth(wan_mac, gateway_mac).ipv4("198.51.100.7", "203.0.113.9").tcp(80, port);
}

/// TCP connections that are opened, carry data and are ended, each side's segments in any order.
[[nodiscard]] exchange tcp_exchange(u16 port) {
  using namespace wire::tcp_flag;
  exchange all;
  for (int i = 0; i < 4; ++i) {
    all.push_back({"lan0", outward(port).flags(ack).payload(20).build()});
    all.push_back({"wan0", inward(port).flags(ack).payload(20).build()});
  }
  all.push_back({"lan0", outward(port).flags(syn).build()});
  all.push_back({"wan0", inward(port).flags(syn | ack).build()});
  all.push_back({"lan0", outward(port).flags(fin | ack).build()});
  all.push_back({"wan0", inward(port).flags(rst).build()});
  return all;
}

[[nodiscard]] sent_frame arp_of(u8 last) {
  const std::string mac = "02:00:00:00:07:0" + std::to_string(last);
  return {"lan0",
          packet()
              .eth("FF:FF:FF:FF:FF:FF", host_mac)
              .arp(wire::arp_op::request, mac, "192.168.1.2", "00:00:00:00:00:00", "192.168.1.1")
              .build()};
}

[[nodiscard]] std::vector<exchange> all_exchanges() {
  std::vector<exchange> all;
  for (const fuzz::conversation& c : fuzz::conversations()) {
    all.push_back(c.opening);
    all.back().insert(all.back().end(), {c.there, c.back, c.there, c.back});
    // A bridged host shows up on another port.
    if (c.there.port == "lan1") all.push_back({{"lan2", c.there.bytes}});
  }
  for (u16 port = first_port; port < first_port + ports; ++port)
    all.push_back(tcp_exchange(port));
  all.push_back(fuzz::fragments());
  all.push_back({arp_of(1), arp_of(2)});
  return all;
}

/// One function as a hook, with a verdict for each call; what it diverts at transmit is its own.
unsigned any_verdict(unsigned point, u8, sk_buff* skb) {
  constexpr unsigned verdicts[] = {VOK_ACCEPT, VOK_ACCEPT, VOK_DROP, VOK_DIVERT, 3, 4};
  thread_local u32 calls = 0;
  const unsigned verdict = verdicts[++calls % std::size(verdicts)];
  if (point == VOK_HOOK_XMIT && verdict == VOK_DIVERT) kfree_skb(skb);
  return verdict;
}

class router_crowd : public testing::Test {
 protected:
  router_crowd() { router_.load_module(); }

  void carry(small_random& random) {
    const exchange& frames = traffic_[random() % traffic_.size()];
    for (unsigned i = 0; i < burst; ++i)
      router_.receive(frames[random() % frames.size()]);
  }

  void change_link(small_random& random) {
    const bool up = random() % 2 == 0;
    set_link(links[random() % std::size(links)], up);
    rest(random, 8);
    if (!up) set_all_links(true);
    rest(random, 8);
  }

  void pass_time(small_random& random) {
    constexpr u32 spans[] = {1, 10, 100, 1000, 10000, 31000, 181000, 5U * 24 * 3600 * HZ};
    // Long ones are rare, or nothing would live long enough to be fast.
    const u32 limit = random() % 32 == 0 ? std::size(spans) : 4;
    pass(spans[random() % limit]);
    rest(random, 2);
  }

  static void use_control_files(small_random& random) {
    read_some(readable[random() % std::size(readable)], random);
    if (random() % 4 == 0) static_cast<void>(proc::write_all("vok/enable", "0"));
    read_some(readable[random() % 3], random);
    static_cast<void>(proc::write_all("vok/enable", "1"));
    static_cast<void>(proc::write_all("vok/slow_xmit_enable", random() % 2 == 0 ? "0" : "1"));
    rest(random, 2);
  }

  /// Whoever has hooks in the module keeps it from going, and frees them after a grace period.
  void hook(small_random& random) {
    const std::scoped_lock turn(module_turn_);
    vok_handle* ci = rcu_dereference(kcih);
    if (ci == nullptr) return;
    constexpr u8 families[] = {2, 10};
    std::array<std::unique_ptr<vok_hook_ops>, 3> hooks;
    for (auto& one : hooks) {
      const auto priority = static_cast<s32>(random() % 3);
      one = std::make_unique<vok_hook_ops>(vok_hook_ops{
          {}, any_verdict, nullptr, families[random() % 2], random() % 4, priority, "crowd"});
      EXPECT_EQ(ci->_vok_register_hook(ci, one.get()), 0);
    }
    rest(random, 2);
    for (auto& one : hooks) {
      ci->_vok_unregister_hook(ci, one.get());
      std::this_thread::yield();
    }
    synchronize_rcu();
  }

  void reload(small_random& random) {
    const std::scoped_lock turn(module_turn_);
    router_.unload_module();
    rest(random, 3);
    router_.load_module();
  }

  void look_around(small_random& random) {
    static_cast<void>(router_.router().statistics());
    static_cast<void>(dev_stats(router_.router().device(links[random() % std::size(links)])));
    {
      const hosted::softirq_scope softirq;
      if (vok_handle* ci = rcu_dereference(kcih)) {
        write_once(ci->portal_check, static_cast<decltype(ci->portal_check)>(random() % 8 == 0));
        constexpr u8 host[] = {0x02, 0, 0, 0, 0x05, 0x02};
        static_cast<void>(ci->_vok_brc_portal_change(ci, host, random() % 2));
      }
    }
    rest(random, 3);
  }

  void set_link(const char* name, bool up) {
    router_.router().set_link(router_.router().device(name), up);
  }
  void set_all_links(bool up) {
    for (const char* name : links)
      set_link(name, up);
  }
  static void switch_to(const char* enable) {
    static_cast<void>(proc::write_all("vok/enable", enable));
  }
  /// One moves the clock at a time.
  void pass(u32 milliseconds) {
    const std::scoped_lock turn(clock_turn_);
    router_.pass(milliseconds);
  }

  /// Nobody works: the tables are in order.
  static void look() { ASSERT_EQ(broken_invariant(), ""); }

  /// Whatever has happened, each kind of connection can be made and becomes fast.
  void fill() {
    set_all_links(true);
    switch_to("1");
    write_once(kcih->portal_check, decltype(kcih->portal_check){});
    pass(all_is_forgotten);
    router_.open_conversations();
  }

  [[nodiscard]] std::vector<ending> endings() {
    return {
        {"the links go down", [this] { set_all_links(false), set_all_links(true); }},
        {"a session ends", [this] { set_link("ppp1", false), set_link("ppp1", true); }, left::some},
        {"time", [this] { pass(all_is_forgotten); }},
        {"time while switched off", [this] { switch_to("0"), pass(all_is_forgotten); }, left::all},
        {"the same, and switched on again",
         [this] { switch_to("0"), pass(all_is_forgotten), switch_to("1"); }},
        {"unloading", [this] { reload(random_); }},
    };
  }

  const std::vector<exchange> traffic_ = all_exchanges();
  std::mutex module_turn_;
  std::mutex clock_turn_;
  small_random random_{0};
  fuzz::fuzzed_router router_;
};

TEST_F(router_crowd, stands_up_to_all_that_can_happen_at_once) {
  crowd all;
  for (unsigned i = 0; i < packet_workers; ++i)
    all.add([this](small_random& random) { carry(random); });
  all.add([this](small_random& random) { change_link(random); });
  all.add([this](small_random& random) { pass_time(random); });
  all.add([](small_random& random) { use_control_files(random); });
  all.add([](small_random& random) { use_control_files(random); });
  all.add([this](small_random& random) { hook(random); });
  all.add([this](small_random& random) { rest(random, 30), reload(random); });
  all.add([this](small_random& random) { look_around(random); });
  all.work_in_rounds(
      endings(), [this] { fill(); }, look);

  const stack::router_statistics seen = router_.router().statistics();
  RecordProperty("offered", std::to_string(seen.offered));
  RecordProperty("fast", std::to_string(seen.fast));
  EXPECT_GT(seen.fast, 0U);
  EXPECT_GT(seen.slow_forwarded, 0U);
}

}  // namespace
}  // namespace tarvelo::test
