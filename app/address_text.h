// SPDX-License-Identifier: GPL-2.0-only
//
// Addresses as text, both ways. Parsing takes exactly the documented forms and nothing around them;
// results are in network byte order. Pure.
#pragma once

#include <optional>
#include <string>

#include "kernel/types.h"
#include "stack/config.h"

namespace tarvelo::app {

[[nodiscard]] std::optional<u32> parse_ipv4(const std::string& text);
[[nodiscard]] std::optional<wire::in6_addr> parse_ipv6(const std::string& text);
[[nodiscard]] std::optional<stack::ip_address> parse_address(const std::string& text);
/// ADDRESS/LENGTH.
[[nodiscard]] std::optional<stack::ip_prefix> parse_prefix(const std::string& text);
/// Six two-digit hexadecimal bytes with colons.
[[nodiscard]] std::optional<stack::mac_address> parse_mac(const std::string& text);

struct ipv4_endpoint {
  u32 address;  ///< network order
  u16 port;     ///< host order, not 0
};
/// ADDRESS:PORT.
[[nodiscard]] std::optional<ipv4_endpoint> parse_endpoint(const std::string& text);

[[nodiscard]] std::string to_text(const stack::ip_address& address);
[[nodiscard]] std::string to_text(const stack::ip_prefix& prefix);

}  // namespace tarvelo::app
