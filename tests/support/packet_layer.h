// SPDX-License-Identifier: GPL-2.0-only
//
// The layers of a frame under construction, and how their headers are completed once all of them
// are there. Used by the packet builder only.
#pragma once

#include <vector>

#include "tests/support/net_text.h"

namespace tarvelo::test {

enum class layer_kind : u8 {
  eth,
  vlan,
  pppoe,
  arp,
  ipv4,
  ipv6,
  tcp,
  udp,
  icmp,
  gre,
  l2tp,
  raw,
};

/// Where a checksum comes from.
enum class sum_source : u8 {
  full,
  partial,  ///< the sum of the pseudo header, as a sender leaves it to its device
  given,
};

struct packet_layer {
  layer_kind what;
  bytes header;
  bool type_given = false;
  bool length_given = false;
  sum_source checksum = sum_source::full;
};

/// The frame, innermost header completed first: types, lengths and checksums that were not given.
[[nodiscard]] bytes finish_layers(const std::vector<packet_layer>& layers);

// Field offsets that are filled in or broken on purpose.
inline constexpr std::size_t ipv4_tos = 1;
inline constexpr std::size_t ipv4_length = 2;
inline constexpr std::size_t ipv4_id = 4;
inline constexpr std::size_t ipv4_fragment = 6;
inline constexpr std::size_t ipv4_ttl = 8;
inline constexpr std::size_t ipv4_protocol = 9;
inline constexpr std::size_t ipv4_checksum = 10;
inline constexpr std::size_t ipv4_addresses = 12;
inline constexpr std::size_t ipv6_payload_length = 4;
inline constexpr std::size_t ipv6_next_header = 6;
inline constexpr std::size_t ipv6_hop_limit = 7;
inline constexpr std::size_t ipv6_addresses = 8;
inline constexpr std::size_t pppoe_payload_length = 4;
inline constexpr std::size_t pppoe_protocol = 6;
inline constexpr std::size_t tcp_data_offset = 12;
inline constexpr std::size_t tcp_flags = 13;
inline constexpr std::size_t tcp_checksum = 16;
inline constexpr std::size_t udp_datagram_length = 4;
inline constexpr std::size_t udp_checksum = 6;
inline constexpr std::size_t icmp_checksum = 2;

inline constexpr std::size_t gre_payload_length = 4;
inline constexpr std::size_t l2tp_message_length = 2;
inline constexpr u16 l2tp_length_present = 0x4000;

/// Big-endian words at an offset, or appended.
///@{
void put16(bytes& data, std::size_t at, u16 host);
[[nodiscard]] u16 get16(const bytes& data, std::size_t at);
void append16(bytes& data, u16 host);
void append32(bytes& data, u32 host);
///@}

}  // namespace tarvelo::test
