// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/nf_conntrack.h"

#include "kernel/account.h"
#include "kernel/checked_internal.h"
#include "kernel/jiffies.h"
#include "kernel/slab.h"
#include "kernel/wire/ip.h"

using hosted::account::kind;

namespace {

constexpr u32 tcp_established_timeout = 5 * 24 * 3600 * HZ;
constexpr u32 udp_replied_timeout = 180 * HZ;

/// Stands in the checked lock order for all that the end of a connection may take: whoever drops a
/// reference under a lock that the end takes is found by the first drop, not by the unlucky one.
constinit char connection_end = 0;

void free_connection(callback_head* head) {
  hosted::account::gone(kind::connection);
  kfree(reinterpret_cast<char*>(head) - offsetof(nf_conn, rcu));
}

}  // namespace

extern "C" {

constinit nf_ct_timeouts nf_ct_init_timeouts = {tcp_established_timeout, udp_replied_timeout};

void (*nf_ct_destroy)(nf_conntrack* nfct) = nullptr;

nf_conn* nf_conntrack_alloc() noexcept {
  auto* ct = static_cast<nf_conn*>(kzalloc(sizeof(nf_conn), GFP_ATOMIC));
  if (ct == nullptr) return nullptr;
  hosted::account::made(kind::connection);
  atomic_set(&ct->ct_general.use, 1);
  return ct;
}

void nf_conntrack_free(nf_conn* ct) noexcept {
  call_rcu(&ct->rcu, free_connection);
}

void checked_conntrack_drop(code_place at) noexcept {
  hosted::checked_might_lock(&connection_end, at);
}

void nf_conntrack_destroy(nf_conntrack* nfct) noexcept {
  void (*const destroy)(nf_conntrack*) = read_once(nf_ct_destroy);
  if (destroy == nullptr) {
    nf_conntrack_free(nf_ct_of(nfct));
    return;
  }
  if constexpr (kernel_checked) {
    const hosted::checked_scope inside(&connection_end, code_place::here());
    destroy(nfct);
  } else {
    destroy(nfct);
  }
}

void nf_ct_refresh_pending(nf_conn* ct, u32 expires) noexcept {
  mod_timer_pending(&ct->timeout, expires);
}

void nf_ct_set_established_timeout(u8 protonum, u32 timeout) noexcept {
  const bool tcp = protonum == wire::ip_protocol::tcp;
  write_once(tcp ? nf_ct_init_timeouts.tcp : nf_ct_init_timeouts.udp, timeout);
}

u8 nf_ct_tcp_state(const nf_conn* ct) noexcept {
  return read_once(ct->tcp.state);
}

bool nf_ct_has_helper(const nf_conn* ct) noexcept {
  return read_once(ct->helper) != nullptr;
}

}  // extern "C"
