// SPDX-License-Identifier: GPL-2.0-only
#include "tests/stack/ipv6_fixture.h"

#include <cstring>

#include "tests/support/naive_checksum.h"
#include "tests/support/packet_layer.h"

namespace tarvelo::test {

namespace {

stack::ipv6_prefix prefix6_of(std::string_view address, u8 length) {
  return {ip6(address), length};
}

bytes addresses_of(std::string_view source, std::string_view destination) {
  bytes both(2 * sizeof(wire::in6_addr));
  const wire::in6_addr from = ip6(source);
  const wire::in6_addr to = ip6(destination);
  std::memcpy(both.data(), &from, sizeof from);
  std::memcpy(both.data() + sizeof from, &to, sizeof to);
  return both;
}

}  // namespace

bytes icmpv6_message(std::string_view source, std::string_view destination, u8 type, u8 code,
                     u32 word, std::span<const u8> body) {
  bytes message = {type, code, 0, 0};
  append32(message, word);
  message.insert(message.end(), body.begin(), body.end());
  naive_sum sum = pseudo_header(addresses_of(source, destination), wire::ip_protocol::icmpv6,
                                static_cast<u32>(message.size()));
  put16(message, icmp_checksum, sum.add(message).checksum());
  return message;
}

bytes nd_body(std::string_view target, u8 option, std::string_view mac) {
  const wire::in6_addr address = ip6(target);
  bytes body(address.bytes, address.bytes + sizeof address.bytes);
  if (mac.empty()) return body;
  body.push_back(option);
  body.push_back(1);
  const auto link = mac_of(mac);
  body.insert(body.end(), link.at, link.at + sizeof link.at);
  return body;
}

wire::ipv6hdr ipv6_of(const bytes& frame) {
  wire::ipv6hdr header{};
  if (frame.size() < wire::ethernet_length + sizeof header) return header;
  std::memcpy(&header, frame.data() + wire::ethernet_length, sizeof header);
  return header;
}

bytes ipv6_payload_of(const bytes& frame) {
  constexpr std::size_t headers = wire::ethernet_length + wire::ipv6_length;
  return frame.size() < headers ? bytes{} : bytes(frame.begin() + headers, frame.end());
}

packet ipv6_fragment(packet link, std::string_view source, std::string_view destination,
                     u8 hop_limit, const bytes& payload, ipv6_piece piece, u32 id) {
  bytes content = {wire::ip_protocol::udp, 0};
  const bool more = piece.end < payload.size();
  append16(content, static_cast<u16>(piece.start | (more ? 1 : 0)));
  append32(content, id);
  content.insert(content.end(), payload.begin() + piece.start, payload.begin() + piece.end);
  return link.ipv6(source, destination)
      .ttl(hop_limit)
      .type(wire::ip_protocol::ipv6_fragment)
      .raw(content);
}

ipv6_test::ipv6_test() {
  config.devices[0].addresses.push_back(prefix6_of(lan6, 64));
  config.devices[1].addresses.push_back(prefix6_of(wan6, 64));
  config.routes.push_back({prefix6_of("::", 0), ip6(gateway6), "wan0"});
  config.neighbours.push_back({"lan0", ip6(host6), config_mac(host_mac)});
  config.neighbours.push_back({"wan0", ip6(gateway6), config_mac(gateway_mac)});
}

bytes ipv6_test::datagram(std::size_t length) {
  const bytes whole = packet().ipv6(host6, server6).udp(4000, 53).payload(length - 8).build();
  return {whole.begin() + wire::ipv6_length, whole.end()};
}

}  // namespace tarvelo::test
