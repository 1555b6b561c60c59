// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/packet_builder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tests/support/naive_checksum.h"

namespace tarvelo::test {
namespace {

// Field offsets that the builder fills in or breaks.
constexpr std::size_t ipv4_tos = 1;
constexpr std::size_t ipv4_length = 2;
constexpr std::size_t ipv4_id = 4;
constexpr std::size_t ipv4_fragment = 6;
constexpr std::size_t ipv4_ttl = 8;
constexpr std::size_t ipv4_protocol = 9;
constexpr std::size_t ipv4_checksum = 10;
constexpr std::size_t ipv4_addresses = 12;
constexpr std::size_t ipv6_payload_length = 4;
constexpr std::size_t ipv6_next_header = 6;
constexpr std::size_t ipv6_hop_limit = 7;
constexpr std::size_t ipv6_addresses = 8;
constexpr std::size_t pppoe_payload_length = 4;
constexpr std::size_t pppoe_protocol = 6;
constexpr std::size_t tcp_data_offset = 12;
constexpr std::size_t tcp_flags = 13;
constexpr std::size_t tcp_checksum = 16;
constexpr std::size_t udp_datagram_length = 4;
constexpr std::size_t udp_checksum = 6;
constexpr std::size_t icmp_checksum = 2;

constexpr u8 default_ttl = 64;
constexpr u16 default_window = 0x2000;

void put16(bytes& data, std::size_t at, u16 host) {
  data[at] = static_cast<u8>(host >> 8);
  data[at + 1] = static_cast<u8>(host);
}

u16 get16(const bytes& data, std::size_t at) {
  return static_cast<u16>(data[at] << 8 | data[at + 1]);
}

template <typename Header>
std::span<const u8> bytes_of(const Header& header) {
  return {reinterpret_cast<const u8*>(&header), sizeof header};
}

}  // namespace

packet& packet::push(kind what, std::span<const u8> header) {
  layers_.push_back({.what = what, .header = bytes(header.begin(), header.end())});
  return *this;
}

packet::layer& packet::last(std::initializer_list<kind> kinds) {
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
  layer& l = last({kind::eth, kind::vlan, kind::pppoe, kind::ipv4, kind::ipv6});
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
  layer& l = last({kind::ipv4, kind::ipv6});
  l.header[l.what == kind::ipv4 ? ipv4_ttl : ipv6_hop_limit] = value;
  return *this;
}

packet& packet::tos(u8 value) {
  layer& l = last({kind::ipv4, kind::ipv6});
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
  layer& l = last({kind::ipv4, kind::ipv6});
  l.length_given = true;
  put16(l.header, l.what == kind::ipv4 ? ipv4_length : ipv6_payload_length, value);
  return *this;
}

packet& packet::ip_checksum(u16 value) {
  layer& l = last({kind::ipv4});
  l.checksum = sum::given;
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
  layer& l = last({kind::udp});
  l.length_given = true;
  put16(l.header, udp_datagram_length, value);
  return *this;
}

packet& packet::l4_checksum(u16 value) {
  layer& l = last({kind::tcp, kind::udp, kind::icmp});
  l.checksum = sum::given;
  const std::size_t at = l.what == kind::tcp   ? tcp_checksum
                         : l.what == kind::udp ? udp_checksum
                                               : icmp_checksum;
  put16(l.header, at, value);
  return *this;
}

packet& packet::partial_checksum() {
  last({kind::tcp, kind::udp}).checksum = sum::partial;
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

/// Completes the headers of a frame, innermost first. `start` is where a layer begins; it reaches
/// to the end of the frame, for padding comes later.
struct packet::finisher {
  const std::vector<layer>& layers;
  std::vector<std::size_t> start;
  bytes frame;

  [[nodiscard]] u16 length_from(std::size_t i) const {
    return static_cast<u16>(frame.size() - start[i]);
  }
  [[nodiscard]] std::span<const u8> rest_from(std::size_t i) const {
    return std::span(frame).subspan(start[i]);
  }

  void write_type(std::size_t i);
  void write_length(std::size_t i);
  void write_transport_checksum(std::size_t i, std::size_t field, u8 protocol);
  void write_checksum(std::size_t i);
};

void packet::finisher::write_type(std::size_t i) {
  const layer& l = layers[i];
  if (l.type_given || i + 1 == layers.size()) return;
  struct names {
    u16 ethertype;
    u16 ppp;
    u8 protocol;
  };
  const auto name = [](kind inner) -> names {
    switch (inner) {
      case kind::vlan:
        return {wire::ethertype::vlan, 0, 0};
      case kind::pppoe:
        return {wire::ethertype::pppoe_session, 0, 0};
      case kind::arp:
        return {wire::ethertype::arp, 0, 0};
      case kind::ipv4:
        return {wire::ethertype::ipv4, wire::ppp_protocol::ipv4, 4};
      case kind::ipv6:
        return {wire::ethertype::ipv6, wire::ppp_protocol::ipv6, 41};
      case kind::tcp:
        return {0, 0, wire::ip_protocol::tcp};
      case kind::udp:
        return {0, 0, wire::ip_protocol::udp};
      case kind::icmp:
        return {0, 0, wire::ip_protocol::icmp};
      case kind::eth:
      case kind::raw:
        break;
    }
    return {0, 0, 0};
  }(layers[i + 1].what);
  const std::size_t end = start[i] + l.header.size();
  switch (l.what) {
    case kind::eth:
    case kind::vlan:
      put16(frame, end - sizeof name.ethertype, name.ethertype);
      break;
    case kind::pppoe:
      put16(frame, start[i] + pppoe_protocol, name.ppp);
      break;
    case kind::ipv4:
      frame[start[i] + ipv4_protocol] = name.protocol;
      break;
    case kind::ipv6:
      frame[start[i] + ipv6_next_header] = name.protocol;
      break;
    default:
      break;
  }
}

void packet::finisher::write_length(std::size_t i) {
  if (layers[i].length_given) return;
  const u16 length = length_from(i);
  switch (layers[i].what) {
    case kind::ipv4:
      put16(frame, start[i] + ipv4_length, length);
      break;
    case kind::ipv6:
      put16(frame, start[i] + ipv6_payload_length, static_cast<u16>(length - wire::ipv6_length));
      break;
    case kind::pppoe:
      put16(frame, start[i] + pppoe_payload_length, static_cast<u16>(length - pppoe_protocol));
      break;
    case kind::udp:
      put16(frame, start[i] + udp_datagram_length, length);
      break;
    default:
      break;
  }
}

void packet::finisher::write_transport_checksum(std::size_t i, std::size_t field, u8 protocol) {
  std::size_t ip = i;
  while (ip > 0 && layers[ip].what != kind::ipv4 && layers[ip].what != kind::ipv6)
    --ip;
  const bool v4 = layers[ip].what == kind::ipv4;
  if (!v4 && layers[ip].what != kind::ipv6) throw std::logic_error("transport layer without IP");
  const auto addresses = v4 ? rest_from(ip).subspan(ipv4_addresses, 2 * sizeof(u32))
                            : rest_from(ip).subspan(ipv6_addresses, 2 * sizeof(wire::in6_addr));
  naive_sum sum_of_all = pseudo_header(addresses, protocol, length_from(i));
  if (layers[i].checksum == sum::partial) {
    put16(frame, start[i] + field, static_cast<u16>(~sum_of_all.checksum()));
    return;
  }
  const u16 value = sum_of_all.add(rest_from(i)).checksum();
  const bool zero_means_none = protocol == wire::ip_protocol::udp;
  put16(frame, start[i] + field, zero_means_none && value == 0 ? 0xFFFF : value);
}

void packet::finisher::write_checksum(std::size_t i) {
  const layer& l = layers[i];
  if (l.checksum == sum::given) return;
  switch (l.what) {
    case kind::ipv4:
      put16(frame, start[i] + ipv4_checksum,
            naive_sum().add(rest_from(i).first(l.header.size())).checksum());
      break;
    case kind::icmp:
      put16(frame, start[i] + icmp_checksum, naive_sum().add(rest_from(i)).checksum());
      break;
    case kind::tcp:
      write_transport_checksum(i, tcp_checksum, wire::ip_protocol::tcp);
      break;
    case kind::udp:
      write_transport_checksum(i, udp_checksum, wire::ip_protocol::udp);
      break;
    default:
      break;
  }
}

bytes packet::build() const {
  finisher f{.layers = layers_, .start = {}, .frame = {}};
  for (const layer& l : layers_) {
    f.start.push_back(f.frame.size());
    f.frame.insert(f.frame.end(), l.header.begin(), l.header.end());
  }
  for (std::size_t i = layers_.size(); i-- > 0;) {
    f.write_type(i);
    f.write_length(i);
    f.write_checksum(i);
  }
  if (f.frame.size() < pad_to_) f.frame.resize(pad_to_);
  if (f.frame.size() > truncate_to_) f.frame.resize(truncate_to_);
  return f.frame;
}

}  // namespace tarvelo::test
