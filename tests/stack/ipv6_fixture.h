// SPDX-License-Identifier: GPL-2.0-only
//
// A router between two Ethernet segments with IPv6 on both:
//
//   host6 2001:db8:1::2 --- lan0 2001:db8:1::1/64   wan0 2001:db8:2::1/64 --- gateway6
//   2001:db8:2::2
//
// The host and the gateway are configured neighbours, `guest6` 2001:db8:1::9 is not; the default
// route goes to the gateway. ICMPv6 messages are built here, byte by byte.
#pragma once

#include "tests/stack/router_fixture.h"

namespace tarvelo::test {

inline constexpr const char* lan6 = "2001:db8:1::1";
inline constexpr const char* wan6 = "2001:db8:2::1";
inline constexpr const char* host6 = "2001:db8:1::2";
inline constexpr const char* guest6 = "2001:db8:1::9";
inline constexpr const char* guest_mac = "02:00:00:00:01:09";
inline constexpr const char* gateway6 = "2001:db8:2::2";
inline constexpr const char* server6 = "2001:db8:f::7";

/// An ICMPv6 message with its checksum, to be the payload of an IPv6 header of type 58.
[[nodiscard]] bytes icmpv6_message(std::string_view source, std::string_view destination, u8 type,
                                   u8 code, u32 word, std::span<const u8> body);
/// What follows `word` in a solicitation or an advertisement: the target, and an option with a
/// link-layer address when `mac` is not empty.
[[nodiscard]] bytes nd_body(std::string_view target, u8 option, std::string_view mac);

/// The IPv6 header of a frame on Ethernet, and the bytes from its transport header on.
[[nodiscard]] wire::ipv6hdr ipv6_of(const bytes& frame);
[[nodiscard]] bytes ipv6_payload_of(const bytes& frame);

/// A piece of the payload of an IPv6 packet of `protocol`, as the fragment that it is in.
struct ipv6_piece {
  u16 start;
  u16 end;
};
[[nodiscard]] packet ipv6_fragment(packet link, std::string_view source,
                                   std::string_view destination, u8 hop_limit, const bytes& payload,
                                   ipv6_piece piece, u32 id);

class ipv6_test : public router_test {
 protected:
  ipv6_test();

  static packet from_host6(std::string_view to = server6) {
    return packet().eth(lan_mac, host_mac).ipv6(host6, to);
  }
  static packet to_gateway6(std::string_view from = host6, std::string_view to = server6) {
    return packet().eth(gateway_mac, wan_mac).ipv6(from, to);
  }
  static packet from_gateway6(std::string_view to = host6) {
    return packet().eth(wan_mac, gateway_mac).ipv6(server6, to);
  }
  /// The payload of a datagram of `length` bytes from the host to the server, UDP header included.
  static bytes datagram(std::size_t length);
};

}  // namespace tarvelo::test
