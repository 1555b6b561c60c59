// SPDX-License-Identifier: GPL-2.0-only
//
// A packet as connection tracking sees it: checked once, then known by its tuple.
//
// What passes the check has a whole transport header inside the packet, a right TCP, UDP or ICMP
// checksum, and TCP flags that make sense together. An ICMP error is told apart, because it belongs
// to the connection of the packet it quotes. A broken TCP segment still gets its tuple where its
// ports can be read: the fast path may have taken its FIN or RST for the connection's end.
//
// Both families go through the same examination; what differs is where the addresses are, where the
// transport header begins and what its checksum covers.
//
// Pure functions over the packet's bytes; nothing is kept. Any context.
#pragma once

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/transport.h"

namespace tarvelo::stack {

enum class packet_kind : u8 {
  flow,    ///< belongs to the connection of its tuple
  error,   ///< an ICMP error about another packet
  broken,  ///< to be dropped
};

/// Part of a buffer that holds an IP packet or, quoted in an ICMP error, the beginning of one.
struct ip_span {
  u8* start;
  u32 bytes;          ///< readable from `start` on; never less than `header_length`
  u32 header_length;  ///< of all headers before the transport header
  u16 family;         ///< NFPROTO_IPV4 or NFPROTO_IPV6
  u8 protocol;        ///< of the transport header

  [[nodiscard]] bool is_ipv6() const noexcept { return family == NFPROTO_IPV6; }
  [[nodiscard]] wire::iphdr* ipv4() const noexcept { return reinterpret_cast<wire::iphdr*>(start); }
  [[nodiscard]] wire::ipv6hdr* ipv6() const noexcept {
    return reinterpret_cast<wire::ipv6hdr*>(start);
  }
  [[nodiscard]] u8* transport() const noexcept { return start + header_length; }
  [[nodiscard]] u32 transport_bytes() const noexcept { return bytes - header_length; }
};

struct tracked_packet {
  packet_kind kind;
  bool has_tuple;  ///< always for a flow; never for an error
  ip_span span;
  nf_conntrack_tuple tuple;  ///< as the packet stands

  [[nodiscard]] u8 protocol() const noexcept { return span.protocol; }
  /// Only for TCP; whole unless the packet is broken.
  [[nodiscard]] const wire::tcphdr& tcp() const noexcept {
    return *reinterpret_cast<const wire::tcphdr*>(span.transport());
  }
};

/// Examines a packet whose IP headers have been checked and whose data is cut to its length.
[[nodiscard]] tracked_packet examine_packet(const sk_buff* skb) noexcept;

/// The span of the buffer's packet, nothing examined.
[[nodiscard]] ip_span packet_span(const sk_buff* skb) noexcept;

/// Reads the tuple of a packet or of the beginning of one. False when its ports, or the type and
/// identifier of an ICMP query, are not there.
[[nodiscard]] bool read_tuple(const ip_span& span, nf_conntrack_tuple* tuple) noexcept;

/// The packet that an ICMP error quotes. False when the error does not hold as much of a packet as
/// names its connection.
[[nodiscard]] bool quoted_packet(const ip_span& error, ip_span* quoted) noexcept;

/// The tuple of the answer to `tuple`; `dir` is turned, too.
[[nodiscard]] nf_conntrack_tuple inverse(const nf_conntrack_tuple& tuple) noexcept;

/// True when both name the same packets; `dir` is not looked at.
[[nodiscard]] bool same_tuple(const nf_conntrack_tuple& a, const nf_conntrack_tuple& b) noexcept;

/// True for TCP that may begin a connection: a SYN, or (see connection tracking's own header) a
/// plain ACK of one that is already going on.
[[nodiscard]] bool tcp_is_plain_ack(u8 flags) noexcept;
[[nodiscard]] bool tcp_is_syn(u8 flags) noexcept;

/// True when a tuple's connection is one of ICMP queries of its own family.
[[nodiscard]] bool is_icmp(const nf_conntrack_tuple& tuple) noexcept;

/// True for an ICMP query, as opposed to its answer.
[[nodiscard]] bool icmp_begins_exchange(const nf_conntrack_tuple& tuple) noexcept;

}  // namespace tarvelo::stack
