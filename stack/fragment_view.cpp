// SPDX-License-Identifier: GPL-2.0-only
#include "stack/fragment_view.h"

#include <cstring>

#include "stack/ip_packet.h"
#include "stack/ipv6_packet.h"

namespace tarvelo::stack {

namespace {

std::optional<fragment_view> sound(const fragment_view& view) noexcept {
  const u32 length = view.end - view.start;
  if (length == 0 || (!view.last && length % fragment_unit != 0)) return std::nullopt;
  return view;
}

std::optional<fragment_view> read_ipv4_fragment(const u8* start, u32 bytes) noexcept {
  if (bytes < wire::ipv4_min_length) return std::nullopt;
  const auto& ip = *reinterpret_cast<const wire::iphdr*>(start);
  const u32 header = ip.header_length();
  const u32 length = ip.tot_len.host();
  if (!is_fragment(&ip) || header < wire::ipv4_min_length || length < header || length > bytes) {
    return std::nullopt;
  }
  fragment_view view{};
  view.key.version = 4;
  view.key.protocol = ip.protocol;
  view.key.id = ip.id.raw();
  std::memcpy(view.key.saddr, &ip.saddr, sizeof ip.saddr);
  std::memcpy(view.key.daddr, &ip.daddr, sizeof ip.daddr);
  const u16 field = ip.frag_off.host();
  view.header = header;
  view.start = (field & wire::ip_frag::offset_mask) * fragment_unit;
  view.end = view.start + length - header;
  view.max_end = wire::ip_max_length - header;
  view.last = (field & wire::ip_frag::more_fragments) == 0;
  return sound(view);
}

std::optional<fragment_view> read_ipv6_fragment(const u8* start, u32 bytes) noexcept {
  if (bytes < wire::ipv6_length) return std::nullopt;
  const auto& ip = *reinterpret_cast<const wire::ipv6hdr*>(start);
  const u32 length = wire::ipv6_length + ip.payload_len.host();
  if (length > bytes) return std::nullopt;
  const std::optional<ipv6_chain> chain = read_ipv6_chain(start, length);
  if (!chain || chain->fragment == 0) return std::nullopt;
  wire::ipv6_frag_hdr fragment;
  std::memcpy(&fragment, start + chain->fragment, sizeof fragment);
  const u16 field = fragment.frag_off.host();
  const u32 data_at = chain->fragment + static_cast<u32>(sizeof fragment);

  fragment_view view{};
  view.key.version = 6;
  view.key.id = fragment.identification.raw();
  std::memcpy(view.key.saddr, &ip.saddr, sizeof ip.saddr);
  std::memcpy(view.key.daddr, &ip.daddr, sizeof ip.daddr);
  view.header = chain->fragment;
  view.start = field & wire::ipv6_frag::offset_mask;
  view.end = view.start + length - data_at;
  view.max_end = wire::ip_max_length - (chain->fragment - wire::ipv6_length);
  view.last = (field & wire::ipv6_frag::more_fragments) == 0;
  if (view.start == 0 && view.last) return std::nullopt;
  return sound(view);
}

}  // namespace

std::optional<fragment_view> read_fragment(const u8* start, u32 bytes) noexcept {
  constexpr unsigned version_shift = 4;
  if (bytes == 0) return std::nullopt;
  switch (*start >> version_shift) {
    case 4:
      return read_ipv4_fragment(start, bytes);
    case 6:
      return read_ipv6_fragment(start, bytes);
    default:
      return std::nullopt;
  }
}

}  // namespace tarvelo::stack
