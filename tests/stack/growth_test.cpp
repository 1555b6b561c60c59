// SPDX-License-Identifier: GPL-2.0-only
//
// A router that has seen many hosts and connections come and go holds no more than before.
#include <malloc.h>

#include "kernel/module_loader.h"
#include "kernel/rcupdate.h"
#include "module/core/handle.h"
#include "module/core/init.h"
#include "tests/stack/router_fixture.h"

namespace tarvelo::test {
namespace {

using stack::receive_verdict;

/// 0 under a sanitizer, which has a heap of its own.
std::size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

class growth_test : public router_test {
 protected:
  growth_test() {
    config.masquerade = {"wan0"};
    start();
    std::string error;
    module = loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
    EXPECT_NE(module, nullptr) << error;
  }

  /// A host nobody has seen before: it asks for the router, has a conversation that becomes fast,
  /// opens a TCP connection that nobody answers, begins a datagram that it never completes, and
  /// sends to a neighbour that there is not.
  void live(u32 number) {
    const std::string address = "192.168.1." + std::to_string(10 + number % 200);
    const std::string mac = packet_mac(number);
    const auto from = [&](std::string_view to) {
      return packet().eth(lan_mac, mac).ipv4(address, to);
    };
    receive("lan0",
            packet()
                .eth(everyone_mac, mac)
                .arp(wire::arp_op::request, mac, address, "00:00:00:00:00:00", lan_address));
    const auto source = static_cast<u16>(2000 + number % 60000);
    receive_verdict last = receive_verdict::dropped;
    for (unsigned i = 0; i < packets; ++i) {
      last = receive("lan0", from(server).udp(source, 53).payload(8));
      const auto sent = sent_on("wan0");
      ASSERT_EQ(sent.size(), 1U);
      receive(
          "wan0",
          from_gateway(server, wan_address).udp(53, udp_of(sent.front()).source.host()).payload(8));
    }
    EXPECT_EQ(last, receive_verdict::fast);
    receive("lan0", from(server).tcp(source, 80).flags(wire::tcp_flag::syn));
    receive("lan0", from(server).id(source).fragment(0, true).udp(source, 54).payload(32));
    receive("lan0", from("192.168.1.250").udp(source, 55).payload(8));
    static_cast<void>(sent_on("lan0"));
    static_cast<void>(sent_on("wan0"));
  }

  static std::string packet_mac(u32 number) {
    char text[] = "02:00:00:10:00:00";
    std::snprintf(text, sizeof text, "02:00:%02X:%02X:%02X:10", number >> 16 & 0xFF,
                  number >> 8 & 0xFF, number & 0xFF);
    return text;
  }

  static constexpr unsigned packets = 12;  ///< each way; an add call for each
  std::unique_ptr<loaded_module> module;
};

TEST_F(growth_test, generations_of_hosts_leave_nothing_behind) {
  constexpr u32 generations = 30;
  constexpr u32 hosts = 25;
  constexpr u32 settled = 3;  // generations until pools and tables have their size
  constexpr u32 all_is_forgotten = 10U * 24 * 3600 * HZ;
  fault::outstanding held{};
  std::size_t heap = 0;
  for (u32 generation = 0; generation < generations; ++generation) {
    SCOPED_TRACE(generation);
    for (u32 i = 0; i < hosts; ++i)
      live(generation * hosts + i);
    EXPECT_EQ(router->statistics().connections, 3U * hosts);
    EXPECT_EQ(kcih->ipc_count, 3U * hosts) << "both ways of the conversation, one of the attempt";
    pass(all_is_forgotten);
    static_cast<void>(sent_on("lan0"));
    static_cast<void>(sent_on("wan0"));
    rcu_barrier();
    EXPECT_EQ(router->statistics().connections, 0U);
    EXPECT_EQ(kcih->ipc_count, 0U);
    if (generation == settled) {
      held = fault::now();
      heap = heap_in_use();
    }
  }
  EXPECT_EQ(fault::now(), held);
  constexpr std::size_t noise = 16 * 1024;
  EXPECT_LT(heap_in_use(), heap + noise);
  EXPECT_EQ(router->statistics().neighbours_refused, 0U);
}

}  // namespace
}  // namespace tarvelo::test
