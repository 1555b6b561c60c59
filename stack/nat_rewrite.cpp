// SPDX-License-Identifier: GPL-2.0-only
#include "stack/nat_rewrite.h"

#include "stack/checksum.h"

namespace tarvelo::stack {
namespace {

/// Where a transport header keeps what translation touches, in bytes from its beginning.
struct transport_layout {
  u32 source_port;
  u32 destination_port;
  u32 check;
  bool covers_addresses;
};

constexpr transport_layout tcp_layout = {offsetof(wire::tcphdr, source),
                                         offsetof(wire::tcphdr, dest),
                                         offsetof(wire::tcphdr, check), true};
constexpr transport_layout udp_layout = {offsetof(wire::udphdr, source),
                                         offsetof(wire::udphdr, dest),
                                         offsetof(wire::udphdr, check), true};
// A query's identifier stands for the port of either end.
constexpr transport_layout icmp_layout = {offsetof(wire::icmphdr, id), offsetof(wire::icmphdr, id),
                                          offsetof(wire::icmphdr, checksum), false};

[[nodiscard]] const transport_layout* layout_of(u8 protocol) noexcept {
  switch (protocol) {
    case wire::ip_protocol::tcp:
      return &tcp_layout;
    case wire::ip_protocol::udp:
      return &udp_layout;
    case wire::ip_protocol::icmp:
      return &icmp_layout;
    default:
      return nullptr;
  }
}

/// A 16-bit field of a transport header; null when the packet ends before it.
[[nodiscard]] wire::be16* field_at(const ip_span& packet, u32 offset) noexcept {
  if (offset + sizeof(wire::be16) > packet.transport_bytes()) return nullptr;
  return reinterpret_cast<wire::be16*>(packet.transport() + offset);
}

/// For 16-bit fields too: the upper halves are equal then and cancel out.
void replace_in_transport(const ip_span& packet, const transport_layout& layout, u32 from,
                          u32 to) noexcept {
  wire::be16* check = field_at(packet, layout.check);
  if (check == nullptr) return;
  const bool is_udp = packet.protocol == wire::ip_protocol::udp;
  if (is_udp && check->raw() == 0) return;
  const u16 replaced = checksum_replace32(check->raw(), from, to);
  *check = wire::be16::from_raw(is_udp ? udp_checksum_on_wire(replaced) : replaced);
}

void rewrite_port(const ip_span& packet, const transport_layout& layout, packet_end end,
                  u16 port) noexcept {
  wire::be16* field =
      field_at(packet, end == packet_end::source ? layout.source_port : layout.destination_port);
  if (field == nullptr || field->raw() == port) return;
  replace_in_transport(packet, layout, field->raw(), port);
  *field = wire::be16::from_raw(port);
}

[[nodiscard]] wire::be32& address_field(wire::iphdr* ip, packet_end end) noexcept {
  return end == packet_end::source ? ip->saddr : ip->daddr;
}

[[nodiscard]] constexpr packet_end opposite(packet_end end) noexcept {
  return end == packet_end::source ? packet_end::destination : packet_end::source;
}

[[nodiscard]] endpoint end_of(const nf_conntrack_tuple& tuple, packet_end end) noexcept {
  const bool source = end == packet_end::source;
  const u32 address = source ? tuple.src.u3.ip : tuple.dst.u3.ip;
  const bool is_icmp = tuple.dst.protonum == wire::ip_protocol::icmp;
  return {address, source || is_icmp ? tuple.src.u : tuple.dst.u};
}

}  // namespace

endpoint translated_end(const nf_conn* ct, ip_conntrack_dir dir, packet_end end) noexcept {
  return end_of(ct->tuple[dir ^ 1], opposite(end));
}

endpoint arriving_end(const nf_conn* ct, ip_conntrack_dir dir, packet_end end) noexcept {
  return end_of(ct->tuple[dir], end);
}

bool is_translated(const nf_conn* ct, ip_conntrack_dir dir, packet_end end) noexcept {
  // The source of one direction is the destination of the other.
  const bool of_original_source = (dir == IP_CT_DIR_ORIGINAL) == (end == packet_end::source);
  return (ct->status & (of_original_source ? IPS_SRC_NAT : IPS_DST_NAT)) != 0;
}

void rewrite_address(wire::iphdr* ip, packet_end end, u32 address) noexcept {
  wire::be32& field = address_field(ip, end);
  ip->check = wire::be16::from_raw(checksum_replace32(ip->check.raw(), field.raw(), address));
  field = wire::be32::from_raw(address);
}

void rewrite_end(const ip_span& packet, packet_end end, endpoint to) noexcept {
  const u32 from = address_field(packet.ipv4(), end).raw();
  const transport_layout* layout = layout_of(packet.protocol);
  if (from != to.address) {
    if (layout != nullptr && layout->covers_addresses) {
      replace_in_transport(packet, *layout, from, to.address);
    }
    rewrite_address(packet.ipv4(), end, to.address);
  }
  if (layout != nullptr) rewrite_port(packet, *layout, end, to.port);
}

}  // namespace tarvelo::stack
