// SPDX-License-Identifier: GPL-2.0-only
//
// L2TP sessions and the tunnels they belong to, and the parameters kept with the channel of a
// session's PPP interface.
//
// A session is counted: one reference of whoever made it, one of its channel, one of each user for
// as long as it uses it. A pointer found inside an RCU read side is turned into a reference by
// l2tp_session_get_not_zero(), never by raising the count: a count of 0 is a session on its way
// out. The memory goes a grace period after the last drop, and with it the reference on the tunnel.
// A tunnel is reached through a session or with a reference of one's own, never otherwise.
//
// Ids are fixed when the session is made. `ns` and `nr` are shared by the fast and the slow path of
// all processors and change only through the two functions below. Everything here may be called in
// any context and takes no lock, but for the two allocations: process context.
#pragma once

#include "kernel/atomic.h"
#include "kernel/checked.h"
#include "kernel/rcupdate.h"
#include "kernel/types.h"
#include "kernel/wire/l2tp.h"
#include "tarvelo/fwd.h"

struct l2tp_tunnel {
  u16 tunnel_id;       ///< own, host order
  u16 peer_tunnel_id;  ///< host order
  atomic_t ref_count;
};

/// Bits of `l2tp_session::state`.
namespace l2tp_session_state {
inline constexpr u8 closing = 0x01;  ///< being torn down: nothing may be sent on it any more
inline constexpr u8 freed = 0x80;    ///< the kernel's own, to notice a session freed twice
}  // namespace l2tp_session_state

struct l2tp_session {
  l2tp_tunnel* tunnel;  ///< one reference held
  u16 session_id;       ///< own, host order
  u16 peer_session_id;  ///< host order
  u16 hdr_len;          ///< bytes of the L2TP header on send: 6, or 10 with sequence numbers
  u16 nr;               ///< packets with a sequence number received
  u16 ns;               ///< sequence number of the next packet sent
  u8 send_seq;          ///< not 0: packets are sent with sequence numbers
  u8 state;             ///< `l2tp_session_state`; read_once()
  atomic_t ref_count;
  code_place last_put;  ///< where the last reference was dropped
  callback_head rcu;
};

/// All in host order.
struct l2tp_session_config {
  u16 session_id;
  u16 peer_session_id;
  bool send_seq;
};

/// What the channel object of an L2TP interface keeps for its packets.
struct l2tp_params {
  u32 local_ip;     ///< network byte order
  u32 remote_ip;    ///< network byte order
  u16 local_port;   ///< network byte order
  u16 remote_port;  ///< network byte order
  u8 tos;
  u8 ttl;                        ///< also written by the fast path; read_once()
  ::l2tp_session* l2tp_session;  ///< one reference held while the channel lives
};

static_assert(tarvelo::binding_layout(offsetof(l2tp_params, local_ip), 0));
static_assert(tarvelo::binding_layout(offsetof(l2tp_params, remote_ip), 4));
static_assert(tarvelo::binding_layout(offsetof(l2tp_params, ttl), 13));
static_assert(tarvelo::binding_layout(offsetof(l2tp_params, l2tp_session), 16));

extern "C" {
/// A tunnel with one reference for the caller; null without memory. Ids in host order.
[[nodiscard]] l2tp_tunnel* l2tp_tunnel_alloc(u16 tunnel_id, u16 peer_tunnel_id) noexcept;
void hosted_l2tp_tunnel_put(l2tp_tunnel* tunnel, const code_place* at) noexcept;

/// A session with one reference for the caller; takes a reference on the tunnel. Null without
/// memory.
[[nodiscard]] l2tp_session* l2tp_session_alloc(l2tp_tunnel* tunnel,
                                               const l2tp_session_config* config) noexcept;
void hosted_l2tp_session_put(l2tp_session* session, const code_place* at) noexcept;
/// Frees a session whose count has become 0, after a grace period. For those who drop a reference
/// with atomic_dec_and_test() themselves.
void l2tp_session_free(l2tp_session* session) noexcept;
}

/// Drops a reference; the last one frees the tunnel at once.
inline void l2tp_tunnel_put(l2tp_tunnel* tunnel, code_place at = code_place::here()) noexcept {
  hosted_l2tp_tunnel_put(tunnel, &at);
}

/// Takes a reference on a session found inside an RCU read side; false when it is being freed.
[[nodiscard]] inline bool l2tp_session_get_not_zero(l2tp_session* session) noexcept {
  return atomic_inc_not_zero(&session->ref_count);
}

/// Drops a reference; the last one frees the session.
inline void l2tp_session_put(l2tp_session* session, code_place at = code_place::here()) noexcept {
  hosted_l2tp_session_put(session, &at);
}

/// Marks a session as being torn down.
inline void l2tp_session_close(l2tp_session* session) noexcept {
  __atomic_fetch_or(&session->state, l2tp_session_state::closing, __ATOMIC_RELAXED);
}

[[nodiscard]] inline bool l2tp_session_closing(const l2tp_session* session) noexcept {
  return (read_once(session->state) & l2tp_session_state::closing) != 0;
}

/// The sequence number of the next packet sent, taken for the caller alone.
[[nodiscard]] inline u16 l2tp_session_next_ns(l2tp_session* session) noexcept {
  return __atomic_fetch_add(&session->ns, 1, __ATOMIC_RELAXED);
}

/// Counts a received packet that carried a sequence number.
inline void l2tp_session_count_nr(l2tp_session* session) noexcept {
  __atomic_fetch_add(&session->nr, 1, __ATOMIC_RELAXED);
}
