// SPDX-License-Identifier: GPL-2.0-only
//
// Frames that nobody sends in good faith. They may be dropped, answered or forwarded; what is
// checked is that the router survives, that whatever it sends is sound, and (by the fixture) that
// every buffer is returned.
#include <algorithm>
#include <random>

#include "tests/stack/router_fixture.h"
#include "tests/support/naive_checksum.h"

namespace tarvelo::test {
namespace {

class hostile_frames_test : public router_test {
 protected:
  static std::vector<bytes> golden_frames() {
    return {
        from_host().udp(4000, 53).payload(40).build(),
        from_host().tcp(4000, 80).flags(wire::tcp_flag::syn).build(),
        from_host().icmp(8, 0, 1, 1).payload(40).build(),
        from_host(lan_address).icmp(8, 0, 1, 1).payload(40).build(),
        from_host(lan_address).udp(4000, 53).payload(40).build(),
        from_host().icmp(3, 4).payload(48).build(),
        from_host().ttl(1).udp(4000, 53).payload(40).build(),
        from_host().type(17).fragment(0, true).payload(40).build(),
        from_host().type(17).fragment(40, false).payload(40).build(),
        packet()
            .eth(everyone_mac, host_mac)
            .arp(wire::arp_op::request, host_mac, host, "00:00:00:00:00:00", lan_address)
            .build(),
    };
  }
  void expect_sound_output() {
    for (const char* name : {"lan0", "wan0"}) {
      for (const bytes& frame : sent_on(name)) {
        // A transport checksum that came in broken goes out broken.
        const frame_layout layout = layout_of(frame);
        if (layout.ipv4 == frame_layout::absent) continue;
        const wire::iphdr ip = ipv4_of(frame);
        ASSERT_EQ(ip.version(), 4);
        ASSERT_GE(ip.header_length(), wire::ipv4_min_length);
        ASSERT_EQ(ip.tot_len.host() + wire::ethernet_length, frame.size()) << describe(frame);
      }
    }
  }
};

TEST_F(hostile_frames_test, every_truncation_of_every_frame) {
  start();
  for (const bytes& frame : golden_frames()) {
    for (std::size_t length = 0; length <= frame.size(); ++length) {
      receive("lan0", bytes(frame.begin(), frame.begin() + length));
      if (frame.size() > wire::ethernet_length && length >= wire::ethernet_length) {
        receive("tun0", bytes(frame.begin() + wire::ethernet_length, frame.begin() + length));
      }
    }
    expect_sound_output();
  }
}

TEST_F(hostile_frames_test, every_byte_of_every_header_changed) {
  start();
  constexpr std::size_t headers = 14 + 20 + 20;
  for (const bytes& golden : golden_frames()) {
    for (std::size_t at = 0; at < std::min(golden.size(), headers); ++at) {
      for (const unsigned flip : {0x01U, 0x80U, 0xFFU, 0x0FU}) {
        bytes frame = golden;
        frame[at] = static_cast<u8>(frame[at] ^ flip);
        receive("lan0", frame);
        // Behind a right header checksum the change gets further in.
        if (at < 14 || at >= 34) continue;
        frame[24] = frame[25] = 0;
        const auto length = std::min<std::size_t>((frame[14] & 0x0FU) * 4U, frame.size() - 14);
        const u16 sum = naive_sum().add(std::span(frame).subspan(14, length)).checksum();
        frame[24] = static_cast<u8>(sum >> 8);
        frame[25] = static_cast<u8>(sum);
        receive("lan0", frame);
      }
    }
    expect_sound_output();
    pass(100);
  }
}

TEST_F(hostile_frames_test, noise) {
  start();
  std::mt19937 random(3);
  const std::vector<bytes> golden = golden_frames();
  for (int round = 0; round < 20000; ++round) {
    bytes frame = golden[random() % golden.size()];
    for (auto changes = random() % 6; changes > 0; --changes) {
      frame[random() % frame.size()] = static_cast<u8>(random());
    }
    frame.resize(random() % (frame.size() + 20));
    receive(random() % 4 == 0 ? "tun0" : "lan0", frame);
    if (round % 500 == 0) pass(1000);
  }
  static_cast<void>(sent_on("tun0"));
  expect_sound_output();
}

TEST_F(hostile_frames_test, every_allocation_failing_once) {
  config.devices[1].mtu = 576;
  start();
  const std::vector<bytes> frames = {
      from_host().udp(4000, 53).payload(1200).build(),
      from_host().ttl(1).udp(4000, 53).payload(40).build(),
      from_host("192.168.1.77").udp(4000, 53).payload(40).build(),
      from_host().type(17).id(3).fragment(0, true).payload(40).build(),
      from_host().type(17).id(3).fragment(40, false).payload(40).build(),
  };
  bool fired = true;
  for (u32 n = 1; fired; ++n) {
    fired = false;
    for (const bytes& frame : frames) {
      sk_buff* skb = make_skb(frame, device("lan0"));
      fault::fail_allocation(n);
      in_softirq([&] { static_cast<void>(router->receive(skb)); });
      fired = fired || fault::fired();
      fault::fail_allocation(0);
    }
    pass(31000);
    expect_sound_output();
  }
}

}  // namespace
}  // namespace tarvelo::test
