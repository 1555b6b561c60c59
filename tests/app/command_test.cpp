// SPDX-License-Identifier: GPL-2.0-only
//
// Bad input: exit status 2, one line that names the place and the cure, nothing left behind.
#include <gtest/gtest.h>

#include "tests/app/command_fixture.h"
#include "tests/app/home_config.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::test {
namespace {

TEST_F(command_test, check_says_what_is_good_and_what_is_not) {
  put("good.toml", home_config);
  const command_result good = run("check --config @/good.toml");
  EXPECT_EQ(good.status, 0);
  EXPECT_EQ(good.out, path("good.toml") + ": good: 2 devices, 1 routes\n");
  EXPECT_EQ(good.err, "");

  put("bad.toml", "[[device]]\nname = 1\n");
  const command_result bad = run("check --config @/bad.toml");
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.out, "");
  EXPECT_EQ(bad.err, "tarvelo: " + path("bad.toml") +
                         ":2:8: an integer where a string belongs (device.name); write a string\n");
}

TEST_F(command_test, help_and_version_are_no_errors) {
  for (const char* arguments : {"--help", "--version", "replay --help"}) {
    const command_result result = run(arguments);
    EXPECT_EQ(result.status, 0) << arguments;
    EXPECT_EQ(result.err, "") << arguments;
    EXPECT_NE(result.out.find("tarvelo"), std::string::npos) << arguments;
  }
}

struct complaint_row {
  const char* arguments;
  const char* said;  ///< "@" is the test's directory
};

TEST_F(command_test, bad_input_is_one_line_and_leaves_nothing_behind) {
  put("home.toml", home_config);
  put("text.pcap", "this is not a capture at all");
  const bytes frame =
      packet().eth(lan_mac, host_mac).ipv4("192.168.1.2", "8.8.8.8").udp(1, 2).build();
  put_capture("good.pcap", {{0, frame}});
  put_capture("long.pcap", {{0, frame}, {s64{50} * 86'400 * 1'000'000, frame}});
  put_capture("raw.pcap", {{0, frame}}, ports::link_layer::raw_ip);
  put("cut.pcap", get("good.pcap").substr(0, get("good.pcap").size() - 1));
  put("file", "");
  std::filesystem::create_directory(path("results"));
  put_capture("results/wan0.pcap", {{0, frame}});

  const std::string replay = "replay --config @/home.toml --out @/out ";
  const complaint_row rows[] = {
      {"", "no subcommand; write one of run replay check, or see tarvelo --help"},
      {"fly --config @/home.toml",
       "fly: no such subcommand; write one of run replay check, or see tarvelo --help"},
      {"--config @/home.toml check", "--config: no option before the subcommand; write it after"},
      {"check", "--config is required; see tarvelo --help"},
      {"check --config @/home.toml --fast",
       "The following argument was not expected: --fast; see tarvelo --help"},
      {"check --config @/none.toml",
       "@/none.toml: cannot be read: No such file or directory; name a configuration file that "
       "can be"},
      {"check --config /dev/zero", "/dev/zero: longer than 4 MiB; name a configuration file"},
      {"check --config @", "@: is a directory; name a configuration file"},
      {"run --config @/home.toml",
       "@/home.toml:1:1: no interface lan0 on this host; make it or name one that is there"},
      {"replay --config @/home.toml --in lan0=@/good.pcap",
       "--out is required; see tarvelo --help"},
      {"R --in lan0", "--in lan0: no name before a '='; write --in DEVICE=CAPTURE"},
      {"R --in lan0=", "--in lan0=: no capture after the '='; write --in DEVICE=CAPTURE"},
      {"replay --config @/home.toml --out @/results --in lan0=@/results/wan0.pcap",
       "--in lan0=@/results/wan0.pcap: what \"wan0\" sends would take its place; choose another "
       "--out"},
      {"R --in lan7=@/good.pcap",
       "--in lan7=@/good.pcap: no port \"lan7\" in @/home.toml; name one of lan0 wan0"},
      {"R --in lan0=@/good.pcap --in lan0=@/good.pcap",
       "--in lan0=@/good.pcap: a second capture for \"lan0\"; merge them first"},
      {"R --in lan0=@/text.pcap",
       "@/text.pcap: not a capture file: unknown file format; give one in pcap format"},
      {"R --in wan0=@/good.pcap --in lan0=@/cut.pcap",
       "@/cut.pcap:frame 1: damaged: truncated dump file; tried to read 42 captured bytes, only "
       "got 41; capture it again or cut it off there"},
      {"R --in lan0=@/raw.pcap",
       "@/raw.pcap: link type RAW does not fit; capture Ethernet frames (EN10MB)"},
      {"R --in lan0=@/long.pcap",
       "@/long.pcap:frame 2: more than 49 days after the first frame; replay a shorter stretch"},
      {"R --set speed=1",
       "--set speed: no control file \"speed\"; write to one of enable slow_xmit_enable "
       "statistics_info version "
       "ipc_count ipc_info ipc_v6_count ipc_v6_info statistics_forward_ipv6_packet_num brc_info"},
      {"R --set version=1",
       "--set version: control file \"version\" refuses 1 bytes: Input/output error; write "
       "something else"},
      {"replay --config @/home.toml --out @/file",
       "@/file: cannot be written: not a directory; choose a directory that can be"},
  };
  const auto before = list("");
  for (const complaint_row& row : rows) {
    std::string arguments = row.arguments;
    if (arguments.starts_with("R ")) arguments.replace(0, 2, replay);
    std::string said = row.said;
    for (auto at = said.find('@'); at != std::string::npos; at = said.find('@')) {
      said.replace(at, 1, path("").substr(0, path("").size() - 1));
    }
    const command_result result = run(arguments);
    EXPECT_EQ(result.status, 2) << row.arguments;
    EXPECT_EQ(result.complaint(), said) << row.arguments;
    EXPECT_EQ(result.out, "") << row.arguments;
    EXPECT_FALSE(std::filesystem::exists(path("out"))) << row.arguments;
  }
  const auto after = list("");
  EXPECT_EQ(after.size(), before.size() + 2) << "more than the two files of the output";
}

TEST_F(command_test, set_reaches_no_file_but_the_routers_own) {
  put("home.toml", home_config);
  put_capture("in.pcap", {{0, bytes(60, 0)}});
  put("enable", "as it was");
  for (const char* name : {"@/enable", "../enable", "/vok/enable", "vok/enable", "./enable",
                           "enable/", ".", "..", "", "ENABLE"}) {
    const command_result result =
        run("replay --config @/home.toml --out @/out --in lan0=@/in.pcap "
            "--set " +
            std::string(name) + "=0");
    EXPECT_EQ(result.status, 2) << name;
    EXPECT_TRUE(result.complaint().starts_with("--set ")) << result.complaint();
    EXPECT_FALSE(std::filesystem::exists(path("out"))) << name;
  }
  EXPECT_EQ(get("enable"), "as it was");
}

TEST_F(command_test, a_file_that_cannot_be_opened_ends_it_with_nothing_half_done) {
  put("home.toml", home_config);
  put_capture("in.pcap", {{0, bytes(60, 0)}});
  expect_clean_ends_under("nofile", "replay --config @/home.toml --out @/out --in lan0=@/in.pcap",
                          "out");
}

}  // namespace
}  // namespace tarvelo::test
