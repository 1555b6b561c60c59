// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/packet_builder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tarvelo::test {
namespace {

constexpr u8 default_ttl = 64;
constexpr u16 default_window = 0x2000;

template <typename Header>
std::span<const u8> bytes_of(const Header& header) {
  return {reinterpret_cast<const u8*>(&header), sizeof header};
}

}  // namespace

packet& packet::push(kind what, std::span<const u8> header) {
  layers_.push_back({.what = what, .header = bytes(header.begin(), header.end())});
  return *this;
}

packet_layer& packet::last(std::initializer_list<kind> kinds) {
  for (auto it = layers_.rbegin(); it != layers_.rend(); ++it) {
    if (std::find(kinds.begin(), kinds.end(), it->what) != kinds.end()) return *it;
  }
  throw std::logic_error("the packet has no layer that this modifier could change");
}

packet& packet::eth(std::string_view destination, std::string_view source) {
  wire::ethhdr header{};
  std::memcpy(header.h_dest, mac_of(destination).at, wire::mac_length);
  std::memcpy(header.h_source, mac_of(source).at, wire::mac_length);
  return push(kind::eth, bytes_of(header));
}

packet& packet::vlan(u16 vid, u8 priority) {
  bytes tag(wire::vlan_tag_length);
  put16(tag, 0, static_cast<u16>(priority << wire::vlan_priority_shift | vid));
  return push(kind::vlan, tag);
}

packet& packet::pppoe(u16 session) {
  wire::pppoe_hdr header{};
  header.version_type = 0x11;
  header.sid = wire::be16(session);
  return push(kind::pppoe, bytes_of(header));
}

packet& packet::arp(u16 operation, std::string_view sender_mac, std::string_view sender,
                    std::string_view target_mac, std::string_view target) {
  wire::arphdr header{};
  header.ar_hrd = wire::be16(1);
  header.ar_pro = wire::be16(wire::ethertype::ipv4);
  header.ar_hln = wire::mac_length;
  header.ar_pln = sizeof(u32);
  header.ar_op = wire::be16(operation);
  std::memcpy(header.ar_sha, mac_of(sender_mac).at, wire::mac_length);
  header.ar_sip = wire::be32::from_raw(ip4(sender));
  std::memcpy(header.ar_tha, mac_of(target_mac).at, wire::mac_length);
  header.ar_tip = wire::be32::from_raw(ip4(target));
  return push(kind::arp, bytes_of(header));
}

packet& packet::ipv4(std::string_view source, std::string_view destination) {
  wire::iphdr header{};
  header.version_ihl = 0x45;
  header.ttl = default_ttl;
  header.saddr = wire::be32::from_raw(ip4(source));
  header.daddr = wire::be32::from_raw(ip4(destination));
  return push(kind::ipv4, bytes_of(header));
}

packet& packet::ipv6(std::string_view source, std::string_view destination) {
  wire::ipv6hdr header{};
  header.version_class_flow = wire::be32(0x60000000);
  header.hop_limit = default_ttl;
  header.saddr = ip6(source);
  header.daddr = ip6(destination);
  return push(kind::ipv6, bytes_of(header));
}

packet& packet::tcp(u16 source, u16 destination) {
  wire::tcphdr header{};
  header.source = wire::be16(source);
  header.dest = wire::be16(destination);
  header.data_offset = 0x50;
  header.flags = wire::tcp_flag::ack;
  header.window = wire::be16(default_window);
  return push(kind::tcp, bytes_of(header));
}

packet& packet::udp(u16 source, u16 destination) {
  wire::udphdr header{};
  header.source = wire::be16(source);
  header.dest = wire::be16(destination);
  return push(kind::udp, bytes_of(header));
}

packet& packet::icmp(u8 icmp_type, u8 code, u16 id_value, u16 sequence) {
  wire::icmphdr header{};
  header.type = icmp_type;
  header.code = code;
  header.id = wire::be16(id_value);
  header.sequence = wire::be16(sequence);
  return push(kind::icmp, bytes_of(header));
}

packet& packet::gre(u16 call, u32 sequence, std::optional<u32> acknowledgement) {
  bytes header = from_hex("3001 880B 0000");
  append16(header, call);
  append32(header, sequence);
  if (acknowledgement) {
    constexpr u8 acknowledgement_present = 0x80;
    header[1] = static_cast<u8>(header[1] | acknowledgement_present);
    append32(header, *acknowledgement);
  }
  return push(kind::gre, header);
}

packet& packet::l2tp(u16 first_word, u16 tunnel, u16 session, u16 sequence) {
  constexpr u16 sequence_present = 0x0800;
  bytes header;
  append16(header, first_word);
  if ((first_word & l2tp_length_present) != 0) append16(header, 0);
  append16(header, tunnel);
  append16(header, session);
  if ((first_word & sequence_present) != 0) {
    append16(header, sequence);
    append16(header, 0);
  }
  return push(kind::l2tp, header);
}

packet& packet::ppp(ppp_framing framing) {
  switch (framing) {
    case ppp_framing::full:
      return raw(from_hex("FF03 0021"));
    case ppp_framing::without_address:
      return raw(from_hex("0021"));
    case ppp_framing::compressed:
      return raw(from_hex("21"));
    case ppp_framing::compressed_address:
      return raw(from_hex("FF03 21"));
  }
  return *this;
}

packet& packet::raw(std::span<const u8> data) {
  return push(kind::raw, data);
}

packet& packet::payload(std::size_t length, u8 first) {
  bytes data(length);
  for (std::size_t i = 0; i < length; ++i)
    data[i] = static_cast<u8>(first + i);
  return raw(data);
}

packet& packet::payload(std::string_view text) {
  return raw({reinterpret_cast<const u8*>(text.data()), text.size()});
}

packet& packet::type(u16 value) {
  packet_layer& l = last({kind::eth, kind::vlan, kind::pppoe, kind::ipv4, kind::ipv6});
  l.type_given = true;
  if (l.what == kind::ipv4) {
    l.header[ipv4_protocol] = static_cast<u8>(value);
  } else if (l.what == kind::ipv6) {
    l.header[ipv6_next_header] = static_cast<u8>(value);
  } else {
    put16(l.header, l.header.size() - sizeof value, value);
  }
  return *this;
}

packet& packet::ttl(u8 value) {
  packet_layer& l = last({kind::ipv4, kind::ipv6});
  l.header[l.what == kind::ipv4 ? ipv4_ttl : ipv6_hop_limit] = value;
  return *this;
}

packet& packet::tos(u8 value) {
  packet_layer& l = last({kind::ipv4, kind::ipv6});
  if (l.what == kind::ipv4) {
    l.header[ipv4_tos] = value;
  } else {
    put16(l.header, 0, static_cast<u16>(0x6000 | value << 4));
  }
  return *this;
}

packet& packet::id(u16 value) {
  put16(last({kind::ipv4}).header, ipv4_id, value);
  return *this;
}

packet& packet::dont_fragment() {
  bytes& header = last({kind::ipv4}).header;
  put16(header, ipv4_fragment, get16(header, ipv4_fragment) | wire::ip_frag::dont_fragment);
  return *this;
}

packet& packet::fragment(u16 offset, bool more) {
  bytes& header = last({kind::ipv4}).header;
  const auto field = static_cast<u16>(offset / 8 | (more ? wire::ip_frag::more_fragments : 0));
  put16(header, ipv4_fragment,
        static_cast<u16>((get16(header, ipv4_fragment) & wire::ip_frag::dont_fragment) | field));
  return *this;
}

packet& packet::options(std::span<const u8> data) {
  bytes& header = last({kind::ipv4}).header;
  header.insert(header.end(), data.begin(), data.end());
  header.resize((header.size() + 3) / 4 * 4);
  header[0] = static_cast<u8>(0x40 | header.size() / 4);
  return *this;
}

packet& packet::version_ihl(u8 value) {
  last({kind::ipv4, kind::ipv6}).header[0] = value;
  return *this;
}

packet& packet::total_length(u16 value) {
  packet_layer& l = last({kind::ipv4, kind::ipv6});
  l.length_given = true;
  put16(l.header, l.what == kind::ipv4 ? ipv4_length : ipv6_payload_length, value);
  return *this;
}

packet& packet::ip_checksum(u16 value) {
  packet_layer& l = last({kind::ipv4});
  l.checksum = sum_source::given;
  put16(l.header, ipv4_checksum, value);
  return *this;
}

packet& packet::flags(u8 value) {
  last({kind::tcp}).header[tcp_flags] = value;
  return *this;
}

packet& packet::seq(u32 sequence, u32 acknowledgement) {
  bytes& header = last({kind::tcp}).header;
  put16(header, 4, static_cast<u16>(sequence >> 16));
  put16(header, 6, static_cast<u16>(sequence));
  put16(header, 8, static_cast<u16>(acknowledgement >> 16));
  put16(header, 10, static_cast<u16>(acknowledgement));
  return *this;
}

packet& packet::data_offset(u8 words) {
  last({kind::tcp}).header[tcp_data_offset] = static_cast<u8>(words << 4);
  return *this;
}

packet& packet::udp_length(u16 value) {
  packet_layer& l = last({kind::udp});
  l.length_given = true;
  put16(l.header, udp_datagram_length, value);
  return *this;
}

packet& packet::l4_checksum(u16 value) {
  packet_layer& l = last({kind::tcp, kind::udp, kind::icmp});
  l.checksum = sum_source::given;
  const std::size_t at = l.what == kind::tcp   ? tcp_checksum
                         : l.what == kind::udp ? udp_checksum
                                               : icmp_checksum;
  put16(l.header, at, value);
  return *this;
}

packet& packet::partial_checksum() {
  last({kind::tcp, kind::udp}).checksum = sum_source::partial;
  return *this;
}

packet& packet::pad_to(std::size_t length) {
  pad_to_ = length;
  return *this;
}

packet& packet::truncate(std::size_t length) {
  truncate_to_ = length;
  return *this;
}

bytes packet::build() const {
  bytes frame = finish_layers(layers_);
  if (frame.size() < pad_to_) frame.resize(pad_to_);
  if (frame.size() > truncate_to_) frame.resize(truncate_to_);
  return frame;
}

}  // namespace tarvelo::test
