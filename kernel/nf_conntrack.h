// SPDX-License-Identifier: GPL-2.0-only
//
// Connection-tracking records. The record, its references and its end are the kernel's; what makes
// and follows connections is the stack.
//
// `ct_general.use` counts references: one of the tracking table while the connection is in it, one
// of each buffer that carries it. The last drop destroys it, on whatever processor that happens:
// the stack's destroy function runs then, which tells the module, and the record's memory goes
// after an RCU grace period. Never drop a reference with a lock of the module held.
#pragma once

#include "kernel/atomic.h"
#include "kernel/checked.h"
#include "kernel/rcupdate.h"
#include "kernel/spinlock.h"
#include "kernel/timer.h"
#include "kernel/types.h"
#include "tarvelo/ct_ext.h"

/// What a buffer carries of its connection; the first member of nf_conn.
struct nf_conntrack {
  atomic_t use;
};

enum ip_conntrack_info : u8 {
  IP_CT_ESTABLISHED = 0,
  IP_CT_RELATED = 1,
  IP_CT_NEW = 2,
  IP_CT_ESTABLISHED_REPLY = 3,
  IP_CT_RELATED_REPLY = 4,
  IP_CT_NEW_REPLY = 5,
};

enum ip_conntrack_dir : u8 {
  IP_CT_DIR_ORIGINAL = 0,
  IP_CT_DIR_REPLY = 1,
};

/// Bits of `nf_conn::status`.
inline constexpr u32 IPS_EXPECTED = 0x1;
inline constexpr u32 IPS_SEEN_REPLY = 0x2;
inline constexpr u32 IPS_ASSURED = 0x4;
inline constexpr u32 IPS_CONFIRMED = 0x8;
inline constexpr u32 IPS_SRC_NAT = 0x10;
inline constexpr u32 IPS_DST_NAT = 0x20;
inline constexpr u32 IPS_DYING = 0x200;

enum tcp_conntrack : u8 {
  TCP_CONNTRACK_NONE = 0,
  TCP_CONNTRACK_SYN_SENT = 1,
  TCP_CONNTRACK_SYN_RECV = 2,
  TCP_CONNTRACK_ESTABLISHED = 3,
  TCP_CONNTRACK_FIN_WAIT = 4,
  TCP_CONNTRACK_CLOSE_WAIT = 5,
  TCP_CONNTRACK_LAST_ACK = 6,
  TCP_CONNTRACK_TIME_WAIT = 7,
  TCP_CONNTRACK_CLOSE = 8,
  TCP_CONNTRACK_SYN_SENT2 = 9,
};

inline constexpr u16 NFPROTO_IPV4 = 2;
inline constexpr u16 NFPROTO_IPV6 = 10;

enum nf_inet_hooks : u8 {
  NF_INET_PRE_ROUTING = 0,
  NF_INET_LOCAL_IN = 1,
  NF_INET_FORWARD = 2,
  NF_INET_LOCAL_OUT = 3,
  NF_INET_POST_ROUTING = 4,
};

/// An address of either family, network byte order. An IPv4 address fills the first word, the rest
/// is 0, so that two of them compare as 16 bytes.
union nf_inet_addr {
  u32 all[4];
  u32 ip;
  u8 in6[16];

  friend bool operator==(const nf_inet_addr& a, const nf_inet_addr& b) noexcept {
    return a.all[0] == b.all[0] && a.all[1] == b.all[1] && a.all[2] == b.all[2] &&
           a.all[3] == b.all[3];
  }
};

/// One direction of a connection as its packets show it. Ports are in network byte order; an ICMP
/// echo keeps its identifier as both "ports" would be kept: id in `src.u`, type and code in
/// `dst.u`.
struct nf_conntrack_tuple {
  struct {
    nf_inet_addr u3;
    u16 u;
    u16 l3num;  ///< NFPROTO_IPV4 or NFPROTO_IPV6
  } src;
  struct {
    nf_inet_addr u3;
    u16 u;
    u8 protonum;
    u8 dir;  ///< ip_conntrack_dir; not part of the identity
  } dst;
};

struct nf_conn {
  nf_conntrack ct_general;      ///< first member
  u32 status;                   ///< IPS_ bits; changed atomically
  nf_conntrack_tuple tuple[2];  ///< by direction, as the packets of that direction arrive
  timer_list timeout;           ///< ends the connection; see nf_ct_refresh_pending()
  vok_ct_ext* vok_ext;          ///< the module's record, null without one
  const char* helper;           ///< name of the helper that owns the connection, or null
  struct {
    u8 state;  ///< tcp_conntrack
    u8 last_flags[2];
    u8 closing;  ///< the stack's
  } tcp;
  u32 mark;     ///< the stack's
  void* stack;  ///< the stack's own record of this connection
  callback_head rcu;
};

/// Time-outs of connections that both ends have been heard of, in jiffies; read_once().
struct nf_ct_timeouts {
  u32 tcp;
  u32 udp;
};

extern "C" {
/// A record with one reference, all else 0; null without memory. Any context.
[[nodiscard]] nf_conn* nf_conntrack_alloc() noexcept;
/// Gives the memory back after a grace period; for the stack's destroy function.
void nf_conntrack_free(nf_conn* ct) noexcept;

/// Ends a connection whose count has just become 0; no lock of the module held.
void nf_conntrack_destroy(nf_conntrack* nfct) noexcept;

/// Checked builds only: a reference is dropped here, which may be the last. Ends the program when a
/// lock is held that the end of a connection takes.
void checked_conntrack_drop(code_place at) noexcept;

/// Called by nf_conntrack_destroy(); set by the stack. Must not take the stack's lock.
extern void (*nf_ct_destroy)(nf_conntrack* nfct);

/// What may differ between kernels is reached by functions.
///@{
/// Moves the expiry of a timer that is still pending; never revives one.
void nf_ct_refresh_pending(nf_conn* ct, u32 expires) noexcept;
/// What nf_ct_established_timeout() reads.
extern nf_ct_timeouts nf_ct_init_timeouts;
void nf_ct_set_established_timeout(u8 protonum, u32 timeout) noexcept;
[[nodiscard]] u8 nf_ct_tcp_state(const nf_conn* ct) noexcept;
[[nodiscard]] bool nf_ct_has_helper(const nf_conn* ct) noexcept;
///@}
}

/// Jiffies at which the connection's timer expires.
[[nodiscard]] inline u32 nf_ct_expires(const nf_conn* ct) noexcept {
  return read_once(ct->timeout.expires);
}

/// The initial namespace's time-out of established TCP or replied UDP, in jiffies.
[[nodiscard]] inline u32 nf_ct_established_timeout(u8 protonum) noexcept {
  constexpr u8 tcp = 6;
  return read_once(protonum == tcp ? nf_ct_init_timeouts.tcp : nf_ct_init_timeouts.udp);
}

[[nodiscard]] inline nf_conn* nf_ct_of(nf_conntrack* nfct) noexcept {
  return reinterpret_cast<nf_conn*>(nfct);
}

inline void nf_conntrack_get(nf_conntrack* nfct) noexcept {
  atomic_inc(&nfct->use);
}

/// Drops a reference; null is allowed.
inline void nf_conntrack_put(nf_conntrack* nfct, code_place at = code_place::here()) noexcept {
  if (nfct == nullptr) return;
  if constexpr (kernel_checked) {
    if (atomic_read(&nfct->use) <= 0) {
      checked_fault("connection reference dropped below zero", at, {});
    }
    checked_conntrack_drop(at);
  }
  if (atomic_dec_and_test(&nfct->use)) nf_conntrack_destroy(nfct);
}

inline void nf_ct_set_status(nf_conn* ct, u32 bits) noexcept {
  atomic_set_mask(bits, &ct->status);
}

static_assert(offsetof(nf_conn, ct_general) == 0);
