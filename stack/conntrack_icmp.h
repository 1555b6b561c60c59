// SPDX-License-Identifier: GPL-2.0-only
//
// ICMP errors about tracked connections (RFC 792, RFC 5508).
//
// An error belongs to the connection of the packet that it quotes and travels against that packet,
// so it is translated like the packets of the other direction: its destination on the way in, its
// source on the way out. The quoted packet is put back, by the same steps, to what the error's
// receiver has sent. The error's source is always replaced where that direction's source is, also
// when a router on the way has sent it: its address means as little outside as the host's own.
//
// Stack's lock.
#pragma once

#include "stack/conntrack_packet.h"
#include "stack/conntrack_table.h"
#include "stack/nat_rewrite.h"

namespace tarvelo::stack {

/// Finds the connection that an error is about, and the direction in which the error travels.
[[nodiscard]] found_connection find_related(const conntrack_table& table,
                                            const ip_span& error) noexcept;

/// Translates one end of an error that travels in direction `dir`, and the opposite end of what it
/// quotes. The error has been examined.
void translate_error(const ip_span& error, const nf_conn* ct, ip_conntrack_dir dir,
                     packet_end end) noexcept;

/// Puts an error that the router has made about a packet of direction `dir`, at whatever stage of
/// its translation, to what the packet's sender knows.
void restore_own_error(const ip_span& error, const nf_conn* ct, ip_conntrack_dir dir) noexcept;

}  // namespace tarvelo::stack
