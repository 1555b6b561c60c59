// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <sstream>

#include "tests/app/command_fixture.h"
#include "tests/app/home_config.h"
#include "tests/support/frame_match.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::test {
namespace {

constexpr const char* inside = "192.168.1.2";
constexpr const char* outside = "198.51.100.7";
constexpr const char* public_end = "203.0.113.9";
/// The add call that opens the fast path.
constexpr int calls_until_fast = 20;

class replay_test : public command_test {
 protected:
  replay_test() { put("home.toml", home_config); }

  [[nodiscard]] command_result replay(const std::string& arguments,
                                      const std::string& out = "out") const {
    return run("replay --config @/home.toml --out @/" + out + " " + arguments);
  }
  [[nodiscard]] std::vector<std::string> frame_lines() const {
    std::istringstream in(get("out/frames.jsonl"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
      lines.push_back(line);
    return lines;
  }
};

packet udp_out(std::size_t payload = 20) {
  return packet().eth(lan_mac, host_mac).ipv4(inside, outside).udp(40000, 53).payload(payload);
}

std::vector<timed_frame> forty_packets() {
  std::vector<timed_frame> frames;
  for (int i = 0; i < 2 * calls_until_fast; ++i)
    frames.push_back({i * 1000, udp_out().build()});
  return frames;
}

TEST_F(replay_test, the_twentieth_call_opens_the_fast_path) {
  put_capture("in.pcap", forty_packets());
  ASSERT_EQ(replay("--in lan0=@/in.pcap").status, 0);
  const auto sent = get_capture("out/wan0.pcap");
  const auto lines = frame_lines();
  ASSERT_EQ(sent.size(), 40U);
  ASSERT_EQ(lines.size(), 40U);
  const u16 port = udp_of(sent[0].data).source.host();
  for (int i = 0; i < 2 * calls_until_fast; ++i) {
    SCOPED_TRACE(i + 1);
    const bool fast = i >= calls_until_fast;
    const packet expected = packet()
                                .eth(gateway_mac, wan_mac)
                                .ipv4(public_end, outside)
                                .ttl(fast ? 64 : 63)
                                .udp(port, 53)
                                .payload(20);
    EXPECT_FRAME_EQ(sent[i].data, expected.build());
    EXPECT_EQ(sent[i].microseconds, i * 1000);
    std::string time = i < 10 ? "0.00" + std::to_string(i) : "0.0" + std::to_string(i);
    while (time.back() == '0' && time.size() > 3)
      time.pop_back();
    EXPECT_EQ(lines[i], "{\"n\": " + std::to_string(i + 1) +
                            ", \"in\": \"lan0\", \"time\": " + time + ", \"verdict\": \"" +
                            (fast ? "fast-routed" : "slow") + "\", \"out\": [\"wan0\"]}");
  }
  EXPECT_EQ(get("out/vok/statistics_info"),
            "ethernet_packet=40,bridge_packet=0,bridge_pool_packet=0,ip_packet=20,"
            "ip_pool_packet=0\n");
  EXPECT_TRUE(get_capture("out/lan0.pcap").empty());
}

TEST_F(replay_test, the_same_input_gives_the_same_bytes) {
  put_capture("in.pcap", forty_packets());
  // Unanswered requests make the router ask by ARP again and again, by its timers.
  put_capture(
      "late.pcap",
      {{500, packet().eth(wan_mac, gateway_mac).ipv4(outside, "192.168.1.77").icmp(8, 0).build()},
       {9'000'000, bytes(60, 0xEE)}});
  for (const char* out : {"one", "two"}) {
    ASSERT_EQ(replay("--in lan0=@/in.pcap --in wan0=@/late.pcap", out).status, 0);
  }
  const auto names = list("one");
  EXPECT_EQ(names, (std::vector<std::string>{"frames.jsonl", "lan0.pcap", "vok", "wan0.pcap"}));
  for (const std::string& name : names) {
    if (name == "vok") continue;
    EXPECT_EQ(get("one/" + name), get("two/" + name)) << name;
  }
  for (const std::string& name : list("one/vok")) {
    EXPECT_EQ(get("one/vok/" + name), get("two/vok/" + name)) << name;
  }
  EXPECT_EQ(list("one/vok").size(), 10U);

  // Timers ran at their own time: the requests are a second apart or so, not all at one instant.
  const auto asked = get_capture("one/lan0.pcap");
  ASSERT_GE(asked.size(), 2U);
  EXPECT_GT(asked[1].microseconds, asked[0].microseconds + 100'000);
  EXPECT_LT(asked[1].microseconds, 9'000'000);
}

TEST_F(replay_test, frames_are_merged_by_time_and_ties_by_the_order_of_the_options) {
  const s64 second = 1'000'000;
  const bytes stray(60, 0xEE);
  put_capture("a.pcap", {{7 * second, stray}, {6 * second, stray}, {7 * second + 10, stray}});
  put_capture("b.pcap", {{7 * second, stray}, {7 * second + 5, stray}});
  ASSERT_EQ(replay("--in wan0=@/b.pcap --in lan0=@/a.pcap").status, 0);
  const auto line = [](int n, const char* in, const char* time) {
    return "{\"n\": " + std::to_string(n) + ", \"in\": \"" + in + "\", \"time\": " + time +
           ", \"verdict\": \"dropped\", \"out\": []}";
  };
  EXPECT_EQ(frame_lines(), (std::vector<std::string>{
                               line(1, "wan0", "0.0"), line(2, "lan0", "0.0"),
                               line(3, "lan0", "0.0"),  // stamped 6 s: the clock does not go back
                               line(4, "wan0", "0.000005"), line(5, "lan0", "0.00001")}));
}

TEST_F(replay_test, control_files_are_set_before_the_first_frame) {
  put_capture("in.pcap", forty_packets());
  ASSERT_EQ(replay("--in lan0=@/in.pcap --set enable=0 --set slow_xmit_enable=1").status, 0);
  EXPECT_EQ(get("out/vok/enable"), "0:\n");
  EXPECT_EQ(get("out/vok/slow_xmit_enable"), "1:\n");
  for (const std::string& line : frame_lines()) {
    EXPECT_NE(line.find("\"slow\""), std::string::npos) << line;
  }
  put("home.toml", std::string(home_config) + "[control]\nfast_path = false\n");
  ASSERT_EQ(replay("").status, 0);
  EXPECT_EQ(get("out/vok/enable"), "0:\n");
}

TEST_F(replay_test, tcp_data_is_fast_and_its_ends_are_slow) {
  std::vector<timed_frame> from_host;
  std::vector<timed_frame> from_server;
  s64 now = 0;
  const auto up = [&](u8 flags, u32 seq, u32 ack, std::size_t payload) {
    from_host.push_back({now += 1000, packet()
                                          .eth(lan_mac, host_mac)
                                          .ipv4(inside, outside)
                                          .tcp(40000, 80)
                                          .flags(flags)
                                          .seq(seq, ack)
                                          .payload(payload)
                                          .build()});
  };
  const auto down = [&](u8 flags, u32 seq, u32 ack, std::size_t payload) {
    from_server.push_back({now += 1000, packet()
                                            .eth(wan_mac, gateway_mac)
                                            .ipv4(outside, public_end)
                                            .tcp(80, 40000)
                                            .flags(flags)
                                            .seq(seq, ack)
                                            .payload(payload)
                                            .build()});
  };
  using namespace wire::tcp_flag;
  up(syn, 100, 0, 0);
  down(syn | ack, 900, 101, 0);
  up(ack, 101, 901, 0);
  for (u32 i = 0; i < 40; ++i) {
    up(ack, 101 + i * 10, 901 + i * 10, 10);
    down(ack, 901 + i * 10, 111 + i * 10, 10);
  }
  up(fin | ack, 501, 1301, 0);
  put_capture("lan.pcap", from_host);
  put_capture("wan.pcap", from_server);
  ASSERT_EQ(replay("--in lan0=@/lan.pcap --in wan0=@/wan.pcap").status, 0);
  const auto lines = frame_lines();
  ASSERT_EQ(lines.size(), 84U);
  const auto is_fast = [](const std::string& line) {
    return line.find("\"fast-routed\"") != std::string::npos;
  };
  EXPECT_FALSE(is_fast(lines[0]));
  EXPECT_FALSE(is_fast(lines[1]));
  EXPECT_FALSE(is_fast(lines[2]));
  EXPECT_TRUE(is_fast(lines[81])) << lines[81];
  EXPECT_TRUE(is_fast(lines[82])) << lines[82];
  EXPECT_FALSE(is_fast(lines[83])) << lines[83];
  EXPECT_EQ(get_capture("out/wan0.pcap").size(), from_host.size());
  EXPECT_EQ(get_capture("out/lan0.pcap").size(), from_server.size());
  for (const char* name : {"out/wan0.pcap", "out/lan0.pcap"}) {
    for (const timed_frame& frame : get_capture(name))
      EXPECT_TRUE(sound_frame(frame.data));
  }
}

TEST_F(replay_test, survives_every_truncation_and_mutated_byte) {
  const bytes whole = udp_out(8).build();
  std::vector<timed_frame> frames = forty_packets();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    frames.push_back({100'000, udp_out(8).truncate(length).build()});
  }
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const u8 value : bytes{0x00, 0x0F, 0x45, 0x81, 0xFF}) {
      bytes mutated = whole;
      mutated[at] = value;
      frames.push_back({200'000, mutated});
    }
  }
  frames.push_back({300'000, bytes(70'000, 0x45)});
  put_capture("in.pcap", frames);
  const command_result result = replay("--in lan0=@/in.pcap");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(frame_lines().size(), frames.size());
}

}  // namespace
}  // namespace tarvelo::test
