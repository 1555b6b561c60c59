// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/packet_layer.h"

#include <span>
#include <stdexcept>

#include "kernel/wire/ethernet.h"
#include "kernel/wire/ip.h"
#include "tests/support/naive_checksum.h"

namespace tarvelo::test {

void put16(bytes& data, std::size_t at, u16 host) {
  data[at] = static_cast<u8>(host >> 8);
  data[at + 1] = static_cast<u8>(host);
}

u16 get16(const bytes& data, std::size_t at) {
  return static_cast<u16>(data[at] << 8 | data[at + 1]);
}

void append16(bytes& data, u16 host) {
  data.push_back(static_cast<u8>(host >> 8));
  data.push_back(static_cast<u8>(host));
}

void append32(bytes& data, u32 host) {
  append16(data, static_cast<u16>(host >> 16));
  append16(data, static_cast<u16>(host));
}

namespace {

/// Completes the headers of a frame, innermost first. `start` is where a layer begins; it reaches
/// to the end of the frame, for padding comes later.
struct finisher {
  const std::vector<packet_layer>& layers;
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

void finisher::write_type(std::size_t i) {
  const packet_layer& l = layers[i];
  if (l.type_given || i + 1 == layers.size()) return;
  struct names {
    u16 ethertype;
    u16 ppp;
    u8 protocol;
  };
  const auto name = [](layer_kind inner) -> names {
    switch (inner) {
      case layer_kind::vlan:
        return {wire::ethertype::vlan, 0, 0};
      case layer_kind::pppoe:
        return {wire::ethertype::pppoe_session, 0, 0};
      case layer_kind::arp:
        return {wire::ethertype::arp, 0, 0};
      case layer_kind::ipv4:
        return {wire::ethertype::ipv4, wire::ppp_protocol::ipv4, 4};
      case layer_kind::ipv6:
        return {wire::ethertype::ipv6, wire::ppp_protocol::ipv6, 41};
      case layer_kind::tcp:
        return {0, 0, wire::ip_protocol::tcp};
      case layer_kind::udp:
        return {0, 0, wire::ip_protocol::udp};
      case layer_kind::icmp:
        return {0, 0, wire::ip_protocol::icmp};
      case layer_kind::gre:
        return {0, 0, wire::ip_protocol::gre};
      case layer_kind::eth:
      case layer_kind::l2tp:
      case layer_kind::raw:
        break;
    }
    return {0, 0, 0};
  }(layers[i + 1].what);
  const std::size_t end = start[i] + l.header.size();
  switch (l.what) {
    case layer_kind::eth:
    case layer_kind::vlan:
      put16(frame, end - sizeof name.ethertype, name.ethertype);
      break;
    case layer_kind::pppoe:
      put16(frame, start[i] + pppoe_protocol, name.ppp);
      break;
    case layer_kind::ipv4:
      frame[start[i] + ipv4_protocol] = name.protocol;
      break;
    case layer_kind::ipv6:
      frame[start[i] + ipv6_next_header] = name.protocol;
      break;
    default:
      break;
  }
}

void finisher::write_length(std::size_t i) {
  if (layers[i].length_given) return;
  const u16 length = length_from(i);
  switch (layers[i].what) {
    case layer_kind::ipv4:
      put16(frame, start[i] + ipv4_length, length);
      break;
    case layer_kind::ipv6:
      put16(frame, start[i] + ipv6_payload_length, static_cast<u16>(length - wire::ipv6_length));
      break;
    case layer_kind::pppoe:
      put16(frame, start[i] + pppoe_payload_length, static_cast<u16>(length - pppoe_protocol));
      break;
    case layer_kind::udp:
      put16(frame, start[i] + udp_datagram_length, length);
      break;
    case layer_kind::gre:
      put16(frame, start[i] + gre_payload_length,
            static_cast<u16>(length - layers[i].header.size()));
      break;
    case layer_kind::l2tp:
      if ((get16(frame, start[i]) & l2tp_length_present) != 0) {
        put16(frame, start[i] + l2tp_message_length, length);
      }
      break;
    default:
      break;
  }
}

void finisher::write_transport_checksum(std::size_t i, std::size_t field, u8 protocol) {
  std::size_t ip = i;
  while (ip > 0 && layers[ip].what != layer_kind::ipv4 && layers[ip].what != layer_kind::ipv6)
    --ip;
  const bool v4 = layers[ip].what == layer_kind::ipv4;
  if (!v4 && layers[ip].what != layer_kind::ipv6)
    throw std::logic_error("transport layer without IP");
  const auto addresses = v4 ? rest_from(ip).subspan(ipv4_addresses, 2 * sizeof(u32))
                            : rest_from(ip).subspan(ipv6_addresses, 2 * sizeof(wire::in6_addr));
  naive_sum sum_of_all = pseudo_header(addresses, protocol, length_from(i));
  if (layers[i].checksum == sum_source::partial) {
    put16(frame, start[i] + field, static_cast<u16>(~sum_of_all.checksum()));
    return;
  }
  const u16 value = sum_of_all.add(rest_from(i)).checksum();
  const bool zero_means_none = protocol == wire::ip_protocol::udp;
  put16(frame, start[i] + field, zero_means_none && value == 0 ? 0xFFFF : value);
}

void finisher::write_checksum(std::size_t i) {
  const packet_layer& l = layers[i];
  if (l.checksum == sum_source::given) return;
  switch (l.what) {
    case layer_kind::ipv4:
      put16(frame, start[i] + ipv4_checksum,
            naive_sum().add(rest_from(i).first(l.header.size())).checksum());
      break;
    case layer_kind::icmp:
      put16(frame, start[i] + icmp_checksum, naive_sum().add(rest_from(i)).checksum());
      break;
    case layer_kind::tcp:
      write_transport_checksum(i, tcp_checksum, wire::ip_protocol::tcp);
      break;
    case layer_kind::udp:
      write_transport_checksum(i, udp_checksum, wire::ip_protocol::udp);
      break;
    default:
      break;
  }
}

}  // namespace

bytes finish_layers(const std::vector<packet_layer>& layers) {
  finisher f{.layers = layers, .start = {}, .frame = {}};
  for (const packet_layer& l : layers) {
    f.start.push_back(f.frame.size());
    f.frame.insert(f.frame.end(), l.header.begin(), l.header.end());
  }
  for (std::size_t i = layers.size(); i-- > 0;) {
    f.write_type(i);
    f.write_length(i);
    f.write_checksum(i);
  }
  return f.frame;
}

}  // namespace tarvelo::test
