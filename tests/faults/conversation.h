// SPDX-License-Identifier: GPL-2.0-only
//
// The golden conversations as tests in one process take them: the configuration, and the frames in
// the order in which they come in.
#pragma once

#include <string>
#include <vector>

#include "app/config.h"
#include "tests/support/net_text.h"

namespace tarvelo::test {

struct arriving_frame {
  u32 time;  ///< milliseconds since the first
  std::string port;
  bytes data;
};

struct conversation {
  app::app_config config;
  std::vector<arriving_frame> frames;
};

/// Traffic of every kind.
inline constexpr const char* conversations[] = {
    "nat-tcp",
    "forward-udp",
    "vlan-out",
    "raw-ip",
    "ipv6-tcp-vlan",
    "ipv6-pppoe",
    "bridge-tagged-untagged",
    "pppoe-lan-vlan-pppoe-wan-vlan",
    "pppoe-to-l2tp",
    "l2tp-vlans",
    "l2tp-over-pppoe-vlan",
    "pptp-vlans",
    "pptp-over-pppoe",
    "fragments-ipv4",
    "fragments-ipv6",
};
/// For the names of tests: a name with underscores.
[[nodiscard]] std::string test_name(const char* conversation);

/// The most frames that the slow path puts together as one datagram, so that all are lost with one;
/// 0 where there is nothing to put together.
[[nodiscard]] int reassembled_frames(const char* conversation);

/// One of tests/golden/data by its name.
[[nodiscard]] conversation read_conversation(const std::string& name);

}  // namespace tarvelo::test
