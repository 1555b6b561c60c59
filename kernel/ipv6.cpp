// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/ipv6.h"

namespace {

constexpr unsigned words = sizeof(wire::in6_addr) / sizeof(u32);

/// Multicast scopes, the low nibble of the second byte.
constexpr u8 scope_interface_local = 1;
constexpr u8 scope_link_local = 2;
constexpr u8 scope_site_local = 5;

u32 word_of(const wire::in6_addr& address, unsigned index) noexcept {
  const u8* at = address.bytes + index * sizeof(u32);
  return u32{at[0]} << 24 | u32{at[1]} << 16 | u32{at[2]} << 8 | at[3];
}

int multicast_type(const wire::in6_addr& address) noexcept {
  switch (address.bytes[1] & 0x0F) {
    case scope_interface_local:
      return IPV6_ADDR_MULTICAST | IPV6_ADDR_LOOPBACK;
    case scope_link_local:
      return IPV6_ADDR_MULTICAST | IPV6_ADDR_LINKLOCAL;
    case scope_site_local:
      return IPV6_ADDR_MULTICAST | IPV6_ADDR_SITELOCAL;
    default:
      return IPV6_ADDR_MULTICAST;
  }
}

/// Addresses whose first half is zero: those that stand for something else than a host.
int embedded_type(const wire::in6_addr& address) noexcept {
  constexpr u32 mapped_marker = 0x0000FFFF;
  const u32 third = word_of(address, words - 2);
  const u32 last = word_of(address, words - 1);
  if (third == mapped_marker) return IPV6_ADDR_MAPPED;
  if (third != 0) return IPV6_ADDR_UNICAST;
  if (last == 0) return IPV6_ADDR_ANY;
  return IPV6_ADDR_UNICAST | (last == 1 ? IPV6_ADDR_LOOPBACK : IPV6_ADDR_COMPATv4);
}

}  // namespace

extern "C" int __ipv6_addr_type(const wire::in6_addr* address) noexcept {
  constexpr u32 local_mask = 0xFFC00000;
  constexpr u32 link_local = 0xFE800000;
  constexpr u32 site_local = 0xFEC00000;
  if (address->bytes[0] == 0xFF) return multicast_type(*address);
  const u32 first = word_of(*address, 0);
  if ((first & local_mask) == link_local) return IPV6_ADDR_UNICAST | IPV6_ADDR_LINKLOCAL;
  if ((first & local_mask) == site_local) return IPV6_ADDR_UNICAST | IPV6_ADDR_SITELOCAL;
  if (first == 0 && word_of(*address, 1) == 0) return embedded_type(*address);
  return IPV6_ADDR_UNICAST;
}
