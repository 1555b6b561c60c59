// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ipv6_packet.h"

namespace tarvelo::stack {

namespace {

namespace extension {
constexpr u8 hop_by_hop = 0;
constexpr u8 routing = 43;
constexpr u8 fragment = wire::ip_protocol::ipv6_fragment;
constexpr u8 destination = 60;
}  // namespace extension

/// Each kind is to occur once, destination options twice (RFC 8200, 4.1).
constexpr unsigned max_extensions = 5;
/// Extension headers say their length in these, the first not counted; bytes.
constexpr u32 length_unit = 8;

constexpr bool has_length_field(u8 protocol) noexcept {
  return protocol == extension::hop_by_hop || protocol == extension::routing ||
         protocol == extension::destination;
}

}  // namespace

std::optional<ipv6_chain> read_ipv6_chain(const u8* start, u32 bytes) noexcept {
  if (bytes < wire::ipv6_length) return std::nullopt;
  const auto& ip = *reinterpret_cast<const wire::ipv6hdr*>(start);
  if (ip.version() != 6) return std::nullopt;

  ipv6_chain chain{ip.nexthdr, wire::ipv6_length, 0, 0, offsetof(wire::ipv6hdr, nexthdr), false};
  for (unsigned seen = 0; seen <= max_extensions; ++seen) {
    const bool is_fragment = chain.protocol == extension::fragment;
    if (!is_fragment && !has_length_field(chain.protocol)) return chain;
    if (bytes - chain.transport < length_unit) return std::nullopt;
    const u8* header = start + chain.transport;
    if (is_fragment) {
      if (chain.fragment != 0) return std::nullopt;
      chain.fragment = chain.transport;
      chain.next_field = chain.announced_at;
      const auto& fields = *reinterpret_cast<const wire::ipv6_frag_hdr*>(header);
      chain.is_later_fragment = (fields.frag_off.host() & wire::ipv6_frag::offset_mask) != 0;
    }
    const u32 length = is_fragment ? length_unit : (header[1] + 1U) * length_unit;
    if (bytes - chain.transport < length) return std::nullopt;
    chain.announced_at = chain.transport;
    chain.protocol = header[0];
    chain.transport += length;
    if (chain.is_later_fragment) return chain;
  }
  return std::nullopt;
}

}  // namespace tarvelo::stack
