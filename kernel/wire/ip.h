// SPDX-License-Identifier: GPL-2.0-only
//
// IPv4 (RFC 791) and IPv6 (RFC 8200) headers.
#pragma once

#include "kernel/wire/endian.h"

namespace wire {

inline constexpr u32 ipv4_min_length = 20;
inline constexpr u32 ipv6_length = 40;
inline constexpr u32 ip_max_length = 65535;

namespace ip_protocol {
inline constexpr u8 icmp = 1;
inline constexpr u8 tcp = 6;
inline constexpr u8 udp = 17;
inline constexpr u8 gre = 47;
inline constexpr u8 icmpv6 = 58;
inline constexpr u8 ipv6_fragment = 44;
}  // namespace ip_protocol

struct iphdr {
  u8 version_ihl;
  u8 tos;
  be16 tot_len;
  be16 id;
  be16 frag_off;
  u8 ttl;
  u8 protocol;
  be16 check;
  be32 saddr;
  be32 daddr;

  [[nodiscard]] constexpr u8 version() const noexcept { return version_ihl >> 4; }
  /// Bytes of the header with its options, as it claims.
  [[nodiscard]] constexpr u32 header_length() const noexcept { return (version_ihl & 0x0FU) * 4; }
};
static_assert(sizeof(iphdr) == ipv4_min_length && alignof(iphdr) == 1);

/// Bits of `frag_off`, host order; the offset counts units of 8 bytes.
namespace ip_frag {
inline constexpr u16 dont_fragment = 0x4000;
inline constexpr u16 more_fragments = 0x2000;
inline constexpr u16 offset_mask = 0x1FFF;
}  // namespace ip_frag

struct in6_addr {
  u8 bytes[16];

  friend constexpr bool operator==(const in6_addr&, const in6_addr&) = default;
};
static_assert(sizeof(in6_addr) == 16 && alignof(in6_addr) == 1);

struct ipv6hdr {
  be32 version_class_flow;
  be16 payload_len;
  u8 nexthdr;
  u8 hop_limit;
  in6_addr saddr;
  in6_addr daddr;

  [[nodiscard]] constexpr u32 version() const noexcept { return version_class_flow.host() >> 28; }
};
static_assert(sizeof(ipv6hdr) == ipv6_length && alignof(ipv6hdr) == 1);

/// The fragment header of IPv6.
struct ipv6_frag_hdr {
  u8 nexthdr;
  u8 reserved;
  be16 frag_off;  ///< `ipv6_frag`; two bits between the fields are reserved
  be32 identification;
};
static_assert(sizeof(ipv6_frag_hdr) == 8 && alignof(ipv6_frag_hdr) == 1);

/// Fields of `frag_off`, host order; the offset, in bytes when the other bits are masked off.
namespace ipv6_frag {
inline constexpr u16 more_fragments = 0x0001;
inline constexpr u16 offset_mask = 0xFFF8;
}  // namespace ipv6_frag

/// 224.0.0.0/4; `raw` in network order.
[[nodiscard]] constexpr bool ipv4_is_multicast(u32 raw) noexcept {
  return (raw & 0xF0) == 0xE0;
}

}  // namespace wire
