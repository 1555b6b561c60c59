// SPDX-License-Identifier: GPL-2.0-only
//
// Addresses as tests write them: text to the bytes of a packet and back. Text that is no address is
// a mistake in the test and ends it with an exception.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kernel/types.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/ip.h"

namespace tarvelo::test {

using bytes = std::vector<u8>;

struct mac {
  u8 at[wire::mac_length];

  friend bool operator==(const mac&, const mac&) = default;
};

/// "02:00:00:00:01:01"
[[nodiscard]] mac mac_of(std::string_view text);
/// "192.168.1.1", in network byte order as the tables keep it.
[[nodiscard]] u32 ip4(std::string_view text);
[[nodiscard]] wire::in6_addr ip6(std::string_view text);

[[nodiscard]] std::string mac_text(const u8* at);
/// `raw` in network byte order.
[[nodiscard]] std::string ip4_text(u32 raw);
[[nodiscard]] std::string ip6_text(const wire::in6_addr& address);

/// "45 00 00 28": hexadecimal pairs, blanks ignored.
[[nodiscard]] bytes from_hex(std::string_view text);

}  // namespace tarvelo::test
