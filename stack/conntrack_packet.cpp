// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_packet.h"

#include "stack/checksum.h"

namespace tarvelo::stack {
namespace {

namespace flag = wire::tcp_flag;

/// The flags that decide what a segment is; the others may come with any of them.
constexpr u8 tcp_kind_mask = flag::fin | flag::syn | flag::rst | flag::ack;

/// ICMP queries (RFC 792) and what answers them.
struct icmp_exchange {
  u8 query;
  u8 answer;
};
constexpr u8 timestamp_query = 13;
constexpr u8 timestamp_answer = 14;
constexpr icmp_exchange icmp_exchanges[] = {
    {wire::icmp_type::echo_request, wire::icmp_type::echo_reply},
    {timestamp_query, timestamp_answer},
};

/// Bytes of a transport header that an error must quote at least (RFC 792).
constexpr u32 quoted_transport_min = 8;

[[nodiscard]] bool tcp_flags_possible(u8 flags) noexcept {
  switch (flags & tcp_kind_mask) {
    case flag::syn:
    case flag::syn | flag::ack:
    case flag::rst:
    case flag::rst | flag::ack:
    case flag::fin | flag::ack:
    case flag::ack:
      return true;
    default:
      return false;
  }
}

[[nodiscard]] bool transport_sum_right(const ip_span& span, u32 length) noexcept {
  const wire::iphdr& ip = *span.ip;
  u32 sum = 0;
  if (ip.protocol != wire::ip_protocol::icmp) {
    sum = pseudo_header_sum(ip.saddr.raw(), ip.daddr.raw(), ip.protocol, static_cast<u16>(length));
  }
  return checksum_holds(span.transport(), length, sum);
}

[[nodiscard]] bool tcp_good(const ip_span& span) noexcept {
  const u32 bytes = span.transport_bytes();
  if (bytes < sizeof(wire::tcphdr)) return false;
  const auto& tcp = *reinterpret_cast<const wire::tcphdr*>(span.transport());
  const u32 header = (tcp.data_offset >> 4) * 4U;
  if (header < sizeof(wire::tcphdr) || header > bytes) return false;
  return tcp_flags_possible(tcp.flags) && transport_sum_right(span, bytes);
}

[[nodiscard]] bool udp_good(const ip_span& span) noexcept {
  if (span.transport_bytes() < sizeof(wire::udphdr)) return false;
  const auto& udp = *reinterpret_cast<const wire::udphdr*>(span.transport());
  const u32 length = udp.len.host();
  if (length < sizeof(wire::udphdr) || length > span.transport_bytes()) return false;
  return udp.check.raw() == 0 || transport_sum_right(span, length);
}

[[nodiscard]] bool is_icmp_error(u8 type) noexcept {
  return type == wire::icmp_type::unreachable || type == wire::icmp_type::time_exceeded ||
         type == wire::icmp_type::parameter_problem;
}

[[nodiscard]] packet_kind icmp_kind(const ip_span& span, bool is_query) noexcept {
  if (span.transport_bytes() < sizeof(wire::icmphdr)) return packet_kind::broken;
  if (!transport_sum_right(span, span.transport_bytes())) return packet_kind::broken;
  if (is_icmp_error(span.transport()[0])) return packet_kind::error;
  return is_query ? packet_kind::flow : packet_kind::broken;
}

[[nodiscard]] packet_kind kind_of(const ip_span& span, bool has_tuple) noexcept {
  switch (span.ip->protocol) {
    case wire::ip_protocol::tcp:
      return tcp_good(span) ? packet_kind::flow : packet_kind::broken;
    case wire::ip_protocol::udp:
      return udp_good(span) ? packet_kind::flow : packet_kind::broken;
    case wire::ip_protocol::icmp:
      return icmp_kind(span, has_tuple);
    default:
      return packet_kind::flow;
  }
}

/// The ICMP type that answers `type`, or is answered by it; false when there is none.
[[nodiscard]] bool icmp_counterpart(u8 type, u8* counterpart) noexcept {
  for (const icmp_exchange& exchange : icmp_exchanges) {
    if (type == exchange.query || type == exchange.answer) {
      *counterpart = type == exchange.query ? exchange.answer : exchange.query;
      return true;
    }
  }
  return false;
}

/// An ICMP query's type and code as they are kept in a tuple's destination.
[[nodiscard]] u16 type_and_code(u8 type, u8 code) noexcept {
  return wire::htons(static_cast<u16>(type << 8 | code));
}
[[nodiscard]] u8 type_of(const nf_conntrack_tuple& tuple) noexcept {
  return static_cast<u8>(wire::ntohs(tuple.dst.u) >> 8);
}
[[nodiscard]] u8 code_of(const nf_conntrack_tuple& tuple) noexcept {
  return static_cast<u8>(wire::ntohs(tuple.dst.u));
}

[[nodiscard]] bool read_ports(const ip_span& span, nf_conntrack_tuple* tuple) noexcept {
  if (span.transport_bytes() < 2 * sizeof(wire::be16)) return false;
  const auto* ports = reinterpret_cast<const wire::be16*>(span.transport());
  tuple->src.u = ports[0].raw();
  tuple->dst.u = ports[1].raw();
  return true;
}

[[nodiscard]] bool read_icmp_query(const ip_span& span, nf_conntrack_tuple* tuple) noexcept {
  if (span.transport_bytes() < sizeof(wire::icmphdr)) return false;
  const auto& icmp = *reinterpret_cast<const wire::icmphdr*>(span.transport());
  u8 counterpart;
  if (!icmp_counterpart(icmp.type, &counterpart)) return false;
  tuple->src.u = icmp.id.raw();
  tuple->dst.u = type_and_code(icmp.type, icmp.code);
  return true;
}

}  // namespace

ip_span packet_span(const sk_buff* skb) noexcept {
  return {reinterpret_cast<wire::iphdr*>(skb->data), skb->len};
}

bool read_tuple(const ip_span& span, nf_conntrack_tuple* tuple) noexcept {
  *tuple = {};
  tuple->src.u3.ip = span.ip->saddr.raw();
  tuple->dst.u3.ip = span.ip->daddr.raw();
  tuple->src.l3num = NFPROTO_IPV4;
  tuple->dst.protonum = span.ip->protocol;
  tuple->dst.dir = IP_CT_DIR_ORIGINAL;
  switch (span.ip->protocol) {
    case wire::ip_protocol::tcp:
    case wire::ip_protocol::udp:
      return read_ports(span, tuple);
    case wire::ip_protocol::icmp:
      return read_icmp_query(span, tuple);
    default:
      return true;
  }
}

tracked_packet examine_packet(const sk_buff* skb) noexcept {
  tracked_packet packet{};
  packet.span = packet_span(skb);
  packet.has_tuple = read_tuple(packet.span, &packet.tuple);
  packet.kind = kind_of(packet.span, packet.has_tuple);
  return packet;
}

bool quoted_packet(const ip_span& error, ip_span* quoted) noexcept {
  const u32 before = sizeof(wire::icmphdr);
  if (error.transport_bytes() < before + sizeof(wire::iphdr)) return false;
  quoted->ip = reinterpret_cast<wire::iphdr*>(error.transport() + before);
  quoted->bytes = error.transport_bytes() - before;
  const u32 header = quoted->ip->header_length();
  if (quoted->ip->version() != 4 || header < wire::ipv4_min_length) return false;
  if (quoted->bytes < header + quoted_transport_min) return false;
  // A later fragment has no ports: it cannot be told whose it was.
  return (quoted->ip->frag_off.host() & wire::ip_frag::offset_mask) == 0;
}

nf_conntrack_tuple inverse(const nf_conntrack_tuple& tuple) noexcept {
  nf_conntrack_tuple turned = tuple;
  turned.src.u3 = tuple.dst.u3;
  turned.dst.u3 = tuple.src.u3;
  turned.dst.dir = tuple.dst.dir ^ 1;
  if (tuple.dst.protonum == wire::ip_protocol::icmp) {
    u8 counterpart = type_of(tuple);
    // Only queries and answers become tuples, so there is a counterpart.
    if (icmp_counterpart(type_of(tuple), &counterpart)) {
      turned.dst.u = type_and_code(counterpart, code_of(tuple));
    }
    return turned;
  }
  turned.src.u = tuple.dst.u;
  turned.dst.u = tuple.src.u;
  return turned;
}

bool same_tuple(const nf_conntrack_tuple& a, const nf_conntrack_tuple& b) noexcept {
  return a.src.u3 == b.src.u3 && a.dst.u3 == b.dst.u3 && a.src.u == b.src.u && a.dst.u == b.dst.u &&
         a.dst.protonum == b.dst.protonum && a.src.l3num == b.src.l3num;
}

bool tcp_is_syn(u8 flags) noexcept {
  return (flags & tcp_kind_mask) == flag::syn;
}

bool tcp_is_plain_ack(u8 flags) noexcept {
  return (flags & tcp_kind_mask) == flag::ack;
}

bool icmp_begins_exchange(const nf_conntrack_tuple& tuple) noexcept {
  for (const icmp_exchange& exchange : icmp_exchanges) {
    if (type_of(tuple) == exchange.query) return true;
  }
  return false;
}

}  // namespace tarvelo::stack
