// SPDX-License-Identifier: GPL-2.0-only
//
// What kind of address an IPv6 address is (RFC 4291).
#pragma once

#include "kernel/types.h"
#include "kernel/wire/ip.h"

inline constexpr int IPV6_ADDR_ANY = 0x0000;  ///< the unspecified address
inline constexpr int IPV6_ADDR_UNICAST = 0x0001;
inline constexpr int IPV6_ADDR_MULTICAST = 0x0002;
inline constexpr int IPV6_ADDR_LOOPBACK = 0x0010;   ///< with unicast
inline constexpr int IPV6_ADDR_LINKLOCAL = 0x0020;  ///< with unicast; with multicast of that scope
inline constexpr int IPV6_ADDR_SITELOCAL = 0x0040;  ///< with unicast; with multicast of that scope
inline constexpr int IPV6_ADDR_COMPATv4 = 0x0080;   ///< with unicast
inline constexpr int IPV6_ADDR_MAPPED = 0x1000;

extern "C" {
/// The kind in the low 16 bits (`IPV6_ADDR_`); what the bits above say is the kernel's. Any
/// context.
[[nodiscard]] int __ipv6_addr_type(const wire::in6_addr* address) noexcept;
}
