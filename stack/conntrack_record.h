// SPDX-License-Identifier: GPL-2.0-only
//
// The life of one tracked connection, from its first packet to the last reference's drop.
//
// A `connection` is the stack's half of an nf_conn and lives exactly as long. Every one that lives
// is in a registry, in the order in which they were made, whether or not it is in the table. The
// registry outlives any one tracker, because a buffer that waits in a queue can hold the last
// reference.
//
// The last reference is dropped on any processor, without the stack's lock. What can meet that end
// (the list, the release of the module's record) is guarded by the registry's own lock, taken
// inside the stack's lock and outside of the module's. All else of a connection is guarded by the
// stack's lock.
#pragma once

#include "kernel/list.h"
#include "kernel/nf_conntrack.h"
#include "kernel/spinlock.h"

namespace tarvelo::stack {

class conntrack_table;
struct connection;

/// One direction's place in the table.
struct tuple_link {
  tuple_link* next;
  connection* owner;
  ip_conntrack_dir dir;
};

/// What the segments of one direction have told so far. Segments of the fast path are missing.
struct tcp_side {
  u32 acknowledged;  ///< highest acknowledgement sent
  u32 syn_end;       ///< sequence number after its SYN
  bool has_acknowledged;
  bool has_syn;
};

struct connection {
  nf_conn* ct;
  list_head all;           ///< in the registry
  conntrack_table* table;  ///< null while it is not in the table
  tuple_link links[2];     ///< by direction
  net_device* in[2];       ///< layer-3 device that a direction's packets came in on last, or null
  net_device* out[2];      ///< device that they left by last, or null
  tcp_side tcp[2];
  bool picked_up;  ///< its beginning was not seen
};

[[nodiscard]] inline connection* connection_of(nf_conn* ct) noexcept {
  return static_cast<connection*>(ct->stack);
}

[[nodiscard]] constexpr ip_conntrack_dir other(ip_conntrack_dir dir) noexcept {
  return dir == IP_CT_DIR_ORIGINAL ? IP_CT_DIR_REPLY : IP_CT_DIR_ORIGINAL;
}

/// Makes a connection with one reference, its reply tuple the plain inverse of `original`; null
/// without memory. Stack's lock.
[[nodiscard]] connection* make_connection(const nf_conntrack_tuple& original) noexcept;

/// What nf_ct_destroy is set to. Any context, no lock of the module held.
void destroy_connection(nf_conntrack* nfct) noexcept;

/// Connections that live, in the table or not; any context.
[[nodiscard]] u32 living_connections() noexcept;

/// Every connection that lives.
struct connection_registry {
  spinlock_t lock;
  list_head all;
  u32 count;  ///< changed under the lock, read without
};
extern connection_registry registry;

/// Calls `visit` with each living connection, the registry's lock held: it must not drop a
/// reference.
template <typename Visitor>
void visit_connections(Visitor&& visit) {
  spin_lock_bh(&registry.lock);
  for (list_head* at = registry.all.next; at != &registry.all; at = at->next) {
    visit(*list_entry<connection, offsetof(connection, all)>(at));
  }
  spin_unlock_bh(&registry.lock);
}

}  // namespace tarvelo::stack
