// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/l2tp.h"

#include "kernel/slab.h"

namespace {

/// No reader can see the session any more, so none can reach the tunnel through it either.
void free_session(callback_head* head) {
  auto* const session =
      reinterpret_cast<l2tp_session*>(reinterpret_cast<u8*>(head) - offsetof(l2tp_session, rcu));
  l2tp_tunnel_put(session->tunnel);
  kfree(session);
}

}  // namespace

extern "C" {

l2tp_tunnel* l2tp_tunnel_alloc(u16 tunnel_id, u16 peer_tunnel_id) noexcept {
  auto* const tunnel = static_cast<l2tp_tunnel*>(kzalloc(sizeof(l2tp_tunnel), GFP_KERNEL));
  if (tunnel == nullptr) return nullptr;
  tunnel->tunnel_id = tunnel_id;
  tunnel->peer_tunnel_id = peer_tunnel_id;
  atomic_set(&tunnel->ref_count, 1);
  return tunnel;
}

void hosted_l2tp_tunnel_put(l2tp_tunnel* tunnel, const code_place* at) noexcept {
  if constexpr (kernel_checked) {
    if (atomic_read(&tunnel->ref_count) <= 0) {
      checked_fault("L2TP tunnel reference dropped below zero", *at, {});
    }
  }
  if (atomic_dec_and_test(&tunnel->ref_count)) kfree(tunnel);
}

l2tp_session* l2tp_session_alloc(l2tp_tunnel* tunnel, const l2tp_session_config* config) noexcept {
  auto* const session = static_cast<l2tp_session*>(kzalloc(sizeof(l2tp_session), GFP_KERNEL));
  if (session == nullptr) return nullptr;
  atomic_inc(&tunnel->ref_count);
  session->tunnel = tunnel;
  session->session_id = config->session_id;
  session->peer_session_id = config->peer_session_id;
  session->send_seq = config->send_seq ? 1 : 0;
  session->hdr_len =
      static_cast<u16>(config->send_seq ? wire::l2tp_sent_max_length : wire::l2tp_base_length);
  atomic_set(&session->ref_count, 1);
  return session;
}

void hosted_l2tp_session_put(l2tp_session* session, const code_place* at) noexcept {
  if constexpr (kernel_checked) {
    if (atomic_read(&session->ref_count) <= 0) {
      checked_fault("L2TP session reference dropped below zero", *at, session->last_put);
    }
  }
  if (!atomic_dec_and_test(&session->ref_count)) return;
  session->last_put = *at;
  l2tp_session_free(session);
}

void l2tp_session_free(l2tp_session* session) noexcept {
  [[maybe_unused]] const u8 before = __atomic_fetch_or(
      &session->state, l2tp_session_state::closing | l2tp_session_state::freed, __ATOMIC_RELAXED);
  if constexpr (kernel_checked) {
    if (atomic_read(&session->ref_count) != 0) {
      checked_fault("L2TP session freed while in use", code_place::here(), session->last_put);
    }
    if ((before & l2tp_session_state::freed) != 0) {
      checked_fault("L2TP session freed twice", code_place::here(), session->last_put);
    }
  }
  call_rcu(&session->rcu, free_session);
}

}  // extern "C"
