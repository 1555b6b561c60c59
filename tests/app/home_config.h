// SPDX-License-Identifier: GPL-2.0-only
//
// The router of the command's tests: a host 192.168.1.2 inside, behind source NAT, a gateway
// 203.0.113.1 outside, both with known hardware addresses.
#pragma once

namespace tarvelo::test {

inline constexpr const char* lan_mac = "02:00:00:00:01:01";
inline constexpr const char* host_mac = "02:00:00:00:01:02";
inline constexpr const char* wan_mac = "02:00:00:00:03:01";
inline constexpr const char* gateway_mac = "02:00:00:00:03:02";

inline constexpr const char* home_config = R"([[device]]
name = "lan0"
type = "port"
mac = "02:00:00:00:01:01"
address = ["192.168.1.1/24"]
[[device]]
name = "wan0"
type = "port"
mac = "02:00:00:00:03:01"
address = ["203.0.113.9/24"]
[[route]]
to = "0.0.0.0/0"
via = "203.0.113.1"
device = "wan0"
[[neighbour]]
device = "lan0"
address = "192.168.1.2"
mac = "02:00:00:00:01:02"
[[neighbour]]
device = "wan0"
address = "203.0.113.1"
mac = "02:00:00:00:03:02"
[nat]
masquerade = ["wan0"]
)";

}  // namespace tarvelo::test
