// SPDX-License-Identifier: GPL-2.0-only
//
// The parameters of a PPTP call and its sequence numbers.
//
// Addresses and call ids are fixed before the channel is attached. The four numbers move with every
// packet, in the fast and the slow path of all processors at once, so they change only through the
// functions below, which need no lock and may be called in any context.
//
// Numbers are 32 bits and wrap. Within `pptp_wrap_window` of the wrap a small number follows a
// large one; elsewhere the larger number is the later.
#pragma once

#include "kernel/types.h"
#include "kernel/wire/gre.h"
#include "kernel/wire/ppp.h"
#include "tarvelo/fwd.h"

/// Bits of `pptp_params::ppp_flags`.
namespace pptp_ppp_flag {
inline constexpr u32 compress_protocol = 0x1;     ///< one byte of PPP protocol on send
inline constexpr u32 omit_address_control = 0x2;  ///< no 0xFF 0x03 on send
}  // namespace pptp_ppp_flag

/// Addresses and call ids in network byte order, as they go into the headers.
struct pptp_params {
  u16 call_id;  ///< own: what the peer sends in the key
  u16 reserved_2;
  u32 local_ip;
  u16 peer_call_id;
  u16 reserved_10;
  u32 remote_ip;
  u32 ack_sent;   ///< last acknowledgement number sent
  u32 ack_recv;   ///< highest acknowledgement number received
  u32 seq_sent;   ///< last sequence number sent
  u32 seq_recv;   ///< last sequence number received: what there is to acknowledge
  u32 ppp_flags;  ///< `pptp_ppp_flag`
};

static_assert(tarvelo::binding_layout(offsetof(pptp_params, local_ip), 4));
static_assert(tarvelo::binding_layout(offsetof(pptp_params, remote_ip), 12));

/// What the call leaves out of the PPP framing of the packets it sends.
[[nodiscard]] inline wire::ppp_omissions pptp_ppp_omissions(const pptp_params* params) noexcept {
  return {.address_control = (params->ppp_flags & pptp_ppp_flag::omit_address_control) != 0,
          .protocol_high_byte = (params->ppp_flags & pptp_ppp_flag::compress_protocol) != 0};
}

inline constexpr u32 pptp_wrap_window = 256;
inline constexpr u32 pptp_wrap_from = 0 - pptp_wrap_window;
static_assert(pptp_wrap_from == 0xFFFFFF00);

/// The state of a call in which nothing was sent or received. The first number sent is 1, which a
/// peer takes as new whether it counts from 0 or from 1; a first number 0 from the peer is new here
/// and will be acknowledged.
inline void pptp_numbers_init(pptp_params* params) noexcept {
  params->ack_sent = ~0U;
  params->ack_recv = 0;
  params->seq_sent = 0;
  params->seq_recv = ~0U;
}

/// The highest acknowledgement after `received` has come while `current` was the highest.
[[nodiscard]] constexpr u32 pptp_later_ack(u32 current, u32 received) noexcept {
  const bool wrapped = received < pptp_wrap_window && current >= pptp_wrap_from;
  return received > current || wrapped ? received : current;
}

/// The last sequence number after `received` has come while `current` was the last. A packet from
/// just before a wrap that comes just after it is late, not new.
[[nodiscard]] constexpr u32 pptp_later_seq(u32 current, u32 received) noexcept {
  const bool late = current < pptp_wrap_window && received >= pptp_wrap_from;
  return received >= current + 1 && !late ? received : current;
}

namespace hosted {

/// Replaces a shared number by `later(number, received)`.
template <u32 (*Later)(u32 current, u32 received) noexcept>
inline void pptp_advance(u32* number, u32 received) noexcept {
  u32 current = read_once(*number);
  u32 next = Later(current, received);
  while (next != current && !__atomic_compare_exchange_n(number, &current, next, true,
                                                         __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    next = Later(current, received);
  }
}

}  // namespace hosted

/// Takes note of a received header, of which length() bytes are readable.
inline void pptp_note_received(pptp_params* params, const wire::pptp_gre_hdr* gre) noexcept {
  if (gre->has_acknowledgement()) {
    hosted::pptp_advance<pptp_later_ack>(&params->ack_recv, gre->acknowledgement());
  }
  if (gre->has_sequence()) {
    hosted::pptp_advance<pptp_later_seq>(&params->seq_recv, gre->sequence());
  }
}

/// The sequence number of the next packet sent, taken for the caller alone.
[[nodiscard]] inline u32 pptp_next_seq(pptp_params* params) noexcept {
  return __atomic_add_fetch(&params->seq_sent, 1, __ATOMIC_RELAXED);
}

/// True when there is something to acknowledge: `*ack` is the number, which the caller must send.
/// Of several callers at once one gets it.
[[nodiscard]] inline bool pptp_take_ack(pptp_params* params, u32* ack) noexcept {
  u32 sent = read_once(params->ack_sent);
  do {
    *ack = read_once(params->seq_recv);
    if (*ack == sent) return false;
  } while (!__atomic_compare_exchange_n(&params->ack_sent, &sent, *ack, true, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED));
  return true;
}
