// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_packet.h"

#include <cstring>
#include <optional>

#include "stack/checksum.h"
#include "stack/ipv6_packet.h"

namespace tarvelo::stack {
namespace {

namespace flag = wire::tcp_flag;

/// The flags that decide what a segment is; the others may come with any of them.
constexpr u8 tcp_kind_mask = flag::fin | flag::syn | flag::rst | flag::ack;

/// ICMP queries and what answers them (RFC 792, RFC 4443). The types of the two families mean
/// different things, so each has its own.
struct icmp_exchange {
  u8 protocol;
  u8 query;
  u8 answer;
};
constexpr u8 timestamp_query = 13;
constexpr u8 timestamp_answer = 14;
constexpr icmp_exchange icmp_exchanges[] = {
    {wire::ip_protocol::icmp, wire::icmp_type::echo_request, wire::icmp_type::echo_reply},
    {wire::ip_protocol::icmp, timestamp_query, timestamp_answer},
    {wire::ip_protocol::icmpv6, wire::icmpv6_type::echo_request, wire::icmpv6_type::echo_reply},
};

[[nodiscard]] constexpr u8 icmp_of(u16 family) noexcept {
  return family == NFPROTO_IPV6 ? wire::ip_protocol::icmpv6 : wire::ip_protocol::icmp;
}

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

[[nodiscard]] u32 sum_of_pseudo_header(const ip_span& span, u16 length) noexcept {
  if (span.is_ipv6()) {
    const wire::ipv6hdr& ip = *span.ipv6();
    return pseudo_header_sum(ip.saddr, ip.daddr, span.protocol, length);
  }
  if (span.protocol == wire::ip_protocol::icmp) return 0;
  const wire::iphdr& ip = *span.ipv4();
  return pseudo_header_sum(ip.saddr.raw(), ip.daddr.raw(), span.protocol, length);
}

[[nodiscard]] bool transport_sum_right(const ip_span& span, u32 length) noexcept {
  return checksum_holds(span.transport(), length,
                        sum_of_pseudo_header(span, static_cast<u16>(length)));
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

[[nodiscard]] bool is_icmp_error(const ip_span& span) noexcept {
  const u8 type = span.transport()[0];
  if (span.is_ipv6()) {
    return type >= wire::icmpv6_type::unreachable && type <= wire::icmpv6_type::parameter_problem;
  }
  return type == wire::icmp_type::unreachable || type == wire::icmp_type::time_exceeded ||
         type == wire::icmp_type::parameter_problem;
}

[[nodiscard]] packet_kind icmp_kind(const ip_span& span, bool is_query) noexcept {
  if (span.transport_bytes() < sizeof(wire::icmphdr)) return packet_kind::broken;
  if (!transport_sum_right(span, span.transport_bytes())) return packet_kind::broken;
  if (is_icmp_error(span)) return packet_kind::error;
  return is_query ? packet_kind::flow : packet_kind::broken;
}

[[nodiscard]] packet_kind kind_of(const ip_span& span, bool has_tuple) noexcept {
  if (span.protocol == icmp_of(span.family)) return icmp_kind(span, has_tuple);
  switch (span.protocol) {
    case wire::ip_protocol::tcp:
      return tcp_good(span) ? packet_kind::flow : packet_kind::broken;
    case wire::ip_protocol::udp:
      return udp_good(span) ? packet_kind::flow : packet_kind::broken;
    default:
      return packet_kind::flow;
  }
}

/// The ICMP type that answers `type`, or is answered by it; false when there is none.
[[nodiscard]] bool icmp_counterpart(u8 protocol, u8 type, u8* counterpart) noexcept {
  for (const icmp_exchange& exchange : icmp_exchanges) {
    if (exchange.protocol != protocol) continue;
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
  if (!icmp_counterpart(span.protocol, icmp.type, &counterpart)) return false;
  tuple->src.u = icmp.id.raw();
  tuple->dst.u = type_and_code(icmp.type, icmp.code);
  return true;
}

void read_addresses(const ip_span& span, nf_conntrack_tuple* tuple) noexcept {
  tuple->src.l3num = span.family;
  if (span.is_ipv6()) {
    std::memcpy(tuple->src.u3.in6, &span.ipv6()->saddr, sizeof tuple->src.u3.in6);
    std::memcpy(tuple->dst.u3.in6, &span.ipv6()->daddr, sizeof tuple->dst.u3.in6);
    return;
  }
  tuple->src.u3.ip = span.ipv4()->saddr.raw();
  tuple->dst.u3.ip = span.ipv4()->daddr.raw();
}

/// A span over what begins like a packet of its family. False when its headers are not all there,
/// or it is a later fragment, whose transport header is elsewhere.
[[nodiscard]] bool span_ipv4(u8* start, u32 bytes, ip_span* span) noexcept {
  if (bytes < wire::ipv4_min_length) return false;
  const auto& ip = *reinterpret_cast<const wire::iphdr*>(start);
  const u32 length = ip.header_length();
  if (ip.version() != 4 || length < wire::ipv4_min_length || length > bytes) return false;
  *span = {start, bytes, length, NFPROTO_IPV4, ip.protocol};
  return (ip.frag_off.host() & wire::ip_frag::offset_mask) == 0;
}

[[nodiscard]] bool span_ipv6(u8* start, u32 bytes, ip_span* span) noexcept {
  const std::optional<ipv6_chain> chain = read_ipv6_chain(start, bytes);
  if (!chain) return false;
  *span = {start, bytes, chain->transport, NFPROTO_IPV6, chain->protocol};
  return !chain->is_later_fragment;
}

}  // namespace

ip_span packet_span(const sk_buff* skb) noexcept {
  ip_span span{};
  const bool is_ipv6 = skb->protocol == wire::htons(wire::ethertype::ipv6);
  // The packet has been checked on its way in: there is a span.
  if (is_ipv6) {
    static_cast<void>(span_ipv6(skb->data, skb->len, &span));
  } else {
    static_cast<void>(span_ipv4(skb->data, skb->len, &span));
  }
  return span;
}

bool read_tuple(const ip_span& span, nf_conntrack_tuple* tuple) noexcept {
  *tuple = {};
  read_addresses(span, tuple);
  tuple->dst.protonum = span.protocol;
  tuple->dst.dir = IP_CT_DIR_ORIGINAL;
  if (is_icmp(*tuple)) return read_icmp_query(span, tuple);
  switch (span.protocol) {
    case wire::ip_protocol::tcp:
    case wire::ip_protocol::udp:
      return read_ports(span, tuple);
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
  if (error.transport_bytes() < before) return false;
  u8* start = error.transport() + before;
  const u32 bytes = error.transport_bytes() - before;
  // A later fragment has no ports: it cannot be told whose it was.
  const bool is_there =
      error.is_ipv6() ? span_ipv6(start, bytes, quoted) : span_ipv4(start, bytes, quoted);
  return is_there && quoted->transport_bytes() >= quoted_transport_min;
}

nf_conntrack_tuple inverse(const nf_conntrack_tuple& tuple) noexcept {
  nf_conntrack_tuple turned = tuple;
  turned.src.u3 = tuple.dst.u3;
  turned.dst.u3 = tuple.src.u3;
  turned.dst.dir = tuple.dst.dir ^ 1;
  if (is_icmp(tuple)) {
    u8 counterpart = type_of(tuple);
    // Only queries and answers become tuples, so there is a counterpart.
    if (icmp_counterpart(tuple.dst.protonum, type_of(tuple), &counterpart)) {
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

bool is_icmp(const nf_conntrack_tuple& tuple) noexcept {
  return tuple.dst.protonum == icmp_of(tuple.src.l3num);
}

bool icmp_begins_exchange(const nf_conntrack_tuple& tuple) noexcept {
  for (const icmp_exchange& exchange : icmp_exchanges) {
    if (exchange.protocol == tuple.dst.protonum && type_of(tuple) == exchange.query) return true;
  }
  return false;
}

}  // namespace tarvelo::stack
