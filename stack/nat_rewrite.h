// SPDX-License-Identifier: GPL-2.0-only
//
// Rewriting one end of a packet: address, and port or ICMP identifier, with every checksum that
// covers them corrected in place. Works on a packet of a buffer and on the beginning of one that an
// ICMP error quotes; of the latter only what is there is rewritten.
//
// A UDP checksum of 0 stays 0 (the datagram carries none), and one that comes out as 0 is stored as
// 0xFFFF. Pure functions over the packet's bytes.
#pragma once

#include "kernel/nf_conntrack.h"
#include "stack/conntrack_packet.h"

namespace tarvelo::stack {

enum class packet_end : u8 {
  source,
  destination
};

/// Network order. Of a protocol without ports `port` is not used.
struct endpoint {
  u32 address;
  u16 port;
};

/// The ends that the packets of direction `dir` have once translated.
[[nodiscard]] endpoint translated_end(const nf_conn* ct, ip_conntrack_dir dir,
                                      packet_end end) noexcept;

/// The ends that they have when they arrive.
[[nodiscard]] endpoint arriving_end(const nf_conn* ct, ip_conntrack_dir dir,
                                    packet_end end) noexcept;

/// True when direction `dir` has that end translated.
[[nodiscard]] bool is_translated(const nf_conn* ct, ip_conntrack_dir dir, packet_end end) noexcept;

void rewrite_end(const ip_span& packet, packet_end end, endpoint to) noexcept;

/// Rewrites only the address of an IPv4 header, as of an ICMP error, whose checksum covers no
/// address.
void rewrite_address(wire::iphdr* ip, packet_end end, u32 address) noexcept;

}  // namespace tarvelo::stack
