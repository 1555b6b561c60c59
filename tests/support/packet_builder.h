// SPDX-License-Identifier: GPL-2.0-only
//
// Frames for tests, layer by layer from the outside in:
//
//   packet().eth(router, host).vlan(7, 5).ipv4("192.168.1.2", "198.51.100.7").ttl(64)
//           .tcp(40000, 80).flags(wire::tcp_flag::ack).payload(10).build()
//
// What a header says about what follows it (types, protocols, lengths, checksums) is filled in by
// build(), outermost last. A modifier changes the last layer of its kind; one that sets a length or
// a checksum breaks the frame on purpose: build() leaves that field alone. Layers may be nested in
// any way, an IPv4 header after raw() too. A packet without eth() begins with its IP header.
//
// A builder is a value: copy one and go on from there.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "kernel/wire/transport.h"
#include "tests/support/net_text.h"
#include "tests/support/packet_layer.h"

namespace tarvelo::test {

enum class ppp_framing : u8 {
  full,                ///< FF 03 00 21
  without_address,     ///< 00 21
  compressed,          ///< 21
  compressed_address,  ///< FF 03 21
};

class packet {
 public:
  packet& eth(std::string_view destination, std::string_view source);
  packet& vlan(u16 vid, u8 priority = 0);
  /// A session frame; what follows decides the PPP protocol.
  packet& pppoe(u16 session);
  packet& arp(u16 operation, std::string_view sender_mac, std::string_view sender,
              std::string_view target_mac, std::string_view target);
  packet& ipv4(std::string_view source, std::string_view destination);
  packet& ipv6(std::string_view source, std::string_view destination);
  packet& tcp(u16 source, u16 destination);
  packet& udp(u16 source, u16 destination);
  packet& icmp(u8 type, u8 code, u16 id = 0, u16 sequence = 0);
  /// The GRE header of a PPTP data packet; the acknowledgement rides along when given.
  packet& gre(u16 call, u32 sequence, std::optional<u32> acknowledgement = std::nullopt);
  /// An L2TP data header: the fields that the bits of `first_word` announce are there, the length
  /// filled in, `sequence` as Ns.
  packet& l2tp(u16 first_word, u16 tunnel, u16 session, u16 sequence = 0);
  /// PPP framing for an IPv4 packet: address and control bytes and a protocol of two bytes, or
  /// neither of the one and one byte of the other.
  packet& ppp(ppp_framing framing = ppp_framing::full);
  packet& raw(std::span<const u8> data);
  /// `length` bytes that count up from `first`, so that a shifted payload does not look right.
  packet& payload(std::size_t length, u8 first = 0);
  packet& payload(std::string_view text);

  /// EtherType or IP protocol written as is by the last Ethernet, VLAN, PPPoE or IP layer.
  packet& type(u16 value);

  packet& ttl(u8 value);  ///< hop limit, for IPv6
  packet& tos(u8 value);
  packet& id(u16 value);
  packet& dont_fragment();
  /// `offset` in bytes, a multiple of 8. With an offset of 0 and no more to come: no fragment.
  packet& fragment(u16 offset, bool more);
  /// IPv4 options, filled up with zeros to a multiple of 4 bytes.
  packet& options(std::span<const u8> data);
  packet& version_ihl(u8 value);
  packet& total_length(u16 value);
  packet& ip_checksum(u16 value);

  packet& flags(u8 tcp_flags);
  packet& seq(u32 sequence, u32 acknowledgement = 0);
  packet& data_offset(u8 words);
  packet& udp_length(u16 value);
  packet& l4_checksum(u16 value);
  /// A UDP datagram without a checksum.
  packet& no_checksum() { return l4_checksum(0); }
  /// A transport checksum as the sender leaves it that lets its device complete it: the sum of the
  /// pseudo header, not complemented.
  packet& partial_checksum();

  /// Zeros behind the frame up to `length` bytes, part of no layer.
  packet& pad_to(std::size_t length);
  /// Cuts the finished frame.
  packet& truncate(std::size_t length);

  [[nodiscard]] bytes build() const;

 private:
  using kind = layer_kind;

  packet& push(kind what, std::span<const u8> header);
  packet_layer& last(std::initializer_list<kind> kinds);

  std::vector<packet_layer> layers_;
  std::size_t pad_to_ = 0;
  std::size_t truncate_to_ = static_cast<std::size_t>(-1);
};

}  // namespace tarvelo::test
