// SPDX-License-Identifier: GPL-2.0-only
//
// Reads frames back: where the headers are, whether lengths and checksums are right, and one line
// for a person. Works on any bytes whatever; what is cut short is said to be.
//
// `link::ethernet` frames begin with a MAC header, `link::ip` packets with their IP header.
#pragma once

#include <optional>
#include <ostream>
#include <span>
#include <string>

#include "kernel/wire/transport.h"
#include "tests/support/net_text.h"

namespace tarvelo::test {

enum class link : u8 {
  ethernet,
  ip,
};

/// The outermost headers of a frame. An offset of `absent` means that the header is not there or
/// not there in full.
struct frame_layout {
  static constexpr std::size_t absent = static_cast<std::size_t>(-1);

  std::optional<u16> tci;            ///< of the first 802.1Q tag
  std::optional<u16> pppoe_session;  ///< host order
  u16 ethertype = 0;                 ///< behind the tag
  std::size_t arp = absent;
  std::size_t ipv4 = absent;
  std::size_t ipv6 = absent;
  std::size_t transport = absent;  ///< only in a first or whole packet
  std::size_t payload = absent;    ///< behind the transport header
  std::size_t ip_end = 0;          ///< one past the IP packet, padding left out
  u8 protocol = 0;
};

[[nodiscard]] frame_layout layout_of(std::span<const u8> frame, link kind = link::ethernet);

/// What is wrong with the frame's lengths and checksums, in words; empty when all is right. A
/// fragment's transport checksum cannot be told and is not looked at.
[[nodiscard]] std::string faults_of(std::span<const u8> frame, link kind = link::ethernet);

/// "02:…→02:… vlan 7 ipv4 192.168.1.2→198.51.100.7 ttl 64 tcp 40000→80 [A] … 54 bytes"
[[nodiscard]] std::string describe(std::span<const u8> frame, link kind = link::ethernet);
/// Rows of 16 bytes with their offset.
[[nodiscard]] std::string hex_dump(std::span<const u8> frame);

/// Copies of headers; the test ends with an exception when the frame has none.
///@{
[[nodiscard]] wire::ethhdr eth_of(std::span<const u8> frame);
[[nodiscard]] wire::iphdr ipv4_of(std::span<const u8> frame, link kind = link::ethernet);
[[nodiscard]] wire::tcphdr tcp_of(std::span<const u8> frame, link kind = link::ethernet);
[[nodiscard]] wire::udphdr udp_of(std::span<const u8> frame, link kind = link::ethernet);
[[nodiscard]] wire::icmphdr icmp_of(std::span<const u8> frame, link kind = link::ethernet);
[[nodiscard]] wire::arphdr arp_of(std::span<const u8> frame);
[[nodiscard]] bytes payload_of(std::span<const u8> frame, link kind = link::ethernet);
///@}

}  // namespace tarvelo::test
