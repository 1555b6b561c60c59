// SPDX-License-Identifier: GPL-2.0-only
//
// TCP (RFC 9293), UDP (RFC 768), ICMP (RFC 792) and ICMPv6 (RFC 4443) headers.
#pragma once

#include "kernel/wire/endian.h"

namespace wire {

namespace tcp_flag {
inline constexpr u8 fin = 0x01;
inline constexpr u8 syn = 0x02;
inline constexpr u8 rst = 0x04;
inline constexpr u8 psh = 0x08;
inline constexpr u8 ack = 0x10;
}  // namespace tcp_flag

struct tcphdr {
  be16 source;
  be16 dest;
  be32 seq;
  be32 ack_seq;
  u8 data_offset;  ///< upper nibble: header length in words of 4 bytes
  u8 flags;        ///< `tcp_flag`
  be16 window;
  be16 check;
  be16 urg_ptr;
};
static_assert(sizeof(tcphdr) == 20 && alignof(tcphdr) == 1);

struct udphdr {
  be16 source;
  be16 dest;
  be16 len;
  be16 check;  ///< 0: the datagram carries no checksum
};
static_assert(sizeof(udphdr) == 8 && alignof(udphdr) == 1);

struct icmphdr {
  u8 type;
  u8 code;
  be16 checksum;
  be16 id;        ///< echo; unused in errors
  be16 sequence;  ///< echo; the next hop's MTU in "fragmentation needed"
};
static_assert(sizeof(icmphdr) == 8 && alignof(icmphdr) == 1);

namespace icmp_type {
inline constexpr u8 echo_reply = 0;
inline constexpr u8 unreachable = 3;
inline constexpr u8 echo_request = 8;
inline constexpr u8 time_exceeded = 11;
inline constexpr u8 parameter_problem = 12;
}  // namespace icmp_type

namespace icmp_code {
inline constexpr u8 net_unreachable = 0;
inline constexpr u8 host_unreachable = 1;
inline constexpr u8 protocol_unreachable = 2;
inline constexpr u8 port_unreachable = 3;
inline constexpr u8 fragmentation_needed = 4;
inline constexpr u8 ttl_exceeded = 0;
inline constexpr u8 reassembly_time_exceeded = 1;
}  // namespace icmp_code

/// ICMPv6 messages begin with an icmphdr too; errors keep a 32-bit word in place of `id` and
/// `sequence`. Types below 128 are errors.
namespace icmpv6_type {
inline constexpr u8 unreachable = 1;
inline constexpr u8 packet_too_big = 2;
inline constexpr u8 time_exceeded = 3;
inline constexpr u8 parameter_problem = 4;
inline constexpr u8 echo_request = 128;
inline constexpr u8 echo_reply = 129;
inline constexpr u8 router_solicitation = 133;
inline constexpr u8 router_advertisement = 134;
inline constexpr u8 neighbour_solicitation = 135;
inline constexpr u8 neighbour_advertisement = 136;
inline constexpr u8 redirect = 137;
}  // namespace icmpv6_type

namespace icmpv6_code {
inline constexpr u8 no_route = 0;
inline constexpr u8 address_unreachable = 3;
inline constexpr u8 port_unreachable = 4;
inline constexpr u8 hop_limit_exceeded = 0;
inline constexpr u8 reassembly_time_exceeded = 1;
inline constexpr u8 unknown_next_header = 1;
}  // namespace icmpv6_code

/// Neighbour solicitation and advertisement (RFC 4861, 4.3 and 4.4), followed by options.
struct nd_message {
  u8 type;
  u8 code;
  be16 checksum;
  be32 flags;  ///< `nd_flag`; only in an advertisement
  u8 target[16];
};
static_assert(sizeof(nd_message) == 24 && alignof(nd_message) == 1);

namespace nd_flag {
inline constexpr u32 router = 0x80000000;
inline constexpr u32 solicited = 0x40000000;
inline constexpr u32 override_known = 0x20000000;
}  // namespace nd_flag

namespace nd_option {
inline constexpr u8 source_address = 1;  ///< link-layer address of the sender
inline constexpr u8 target_address = 2;  ///< link-layer address of the target
inline constexpr u32 unit = 8;           ///< option lengths count in these, bytes
}  // namespace nd_option

}  // namespace wire
