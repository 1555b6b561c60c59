// SPDX-License-Identifier: GPL-2.0-only
//
// The states of a tracked TCP connection.
//
// A table says what each kind of segment does in each state. Around it stand three rules that it
// cannot hold:
//  - what a side sends after its own FIN changes nothing until the other side has closed, too;
//  - a SYN for a connection that is over begins a new one;
//  - a RST must be plausible, as far as that can be judged. In answer to a SYN it must acknowledge
//    that SYN. Later its sequence number must lie at or after what the other side has acknowledged
//    and within one largest possible window; but only while the fast path has never carried the
//    connection, because of what went that way nothing is known.
// Windows are not followed at all, for the same reason.
//
// The state is kept in nf_conn::tcp, whose `closing` has the bit of each direction that has sent
// its FIN. Stack's lock.
#pragma once

#include "stack/conntrack_packet.h"
#include "stack/conntrack_record.h"

namespace tarvelo::stack {

enum class tcp_outcome : u8 {
  follow,  ///< belongs to the connection, whose time-out starts again
  pass,    ///< harmless and without effect: a late or repeated segment
  reopen,  ///< begins a new connection; this one is over
  reject,  ///< to be dropped
};

/// True when a segment may begin a connection.
[[nodiscard]] bool tcp_can_begin(const tracked_packet& packet) noexcept;

/// Sets the state of a connection that `packet` begins. One that is already going on (a plain ACK)
/// starts as established, marked `picked_up`.
void tcp_begin(connection& c, const tracked_packet& packet) noexcept;

/// Applies a further segment of direction `dir`, a repeated first one included.
[[nodiscard]] tcp_outcome tcp_follow(connection& c, ip_conntrack_dir dir,
                                     const tracked_packet& packet) noexcept;

/// True when a segment, perhaps a broken one, asks for the end of its connection so that the fast
/// path gives the connection up. It passes over whatever has a SYN.
[[nodiscard]] bool tcp_asks_for_end(const tracked_packet& packet) noexcept;

/// Jiffies without a packet after which the connection is over.
[[nodiscard]] u32 tcp_timeout(const nf_conn* ct) noexcept;

}  // namespace tarvelo::stack
