// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv6 connection table: a hash of `ipc_v6_entry` by the addresses, ports and protocol of its
// packets, which are the same on arrival and departure.
//
// `vok_handle::ipc_v6_lock` guards the table; what holds for both connection tables is said in
// module/core/connection_table.h.
#pragma once

#include "kernel/nf_conntrack.h"
#include "module/core/connection_table.h"
#include "module/ipv6/address.h"
#include "tarvelo/ipc_v6_entry.h"

namespace tarvelo {

/// What entries are found by; stored bytes, that is network byte order.
struct flow_key_v6 {
  wire::in6_addr sip;
  wire::in6_addr dip;
  u16 sport;
  u16 dport;
  u8 proto;
};

/// Mixes the stored words: shifting the fold is folding the shifted words.
[[nodiscard]] inline u32 ipc_v6_bucket(const flow_key_v6& key) {
  const u32 source = folded(key.sip);
  const u32 destination = folded(key.dip);
  u32 hash = source ^ destination ^ (source >> 8) ^ (destination >> 16);
  hash ^= u32{key.proto} ^ key.dport ^ u32 { key.sport } >> 4;
  hash ^= hash >> 12;
  return hash & (ipc_v6_buckets - 1);
}

/// Frees an unlinked entry after a grace period; any context.
void release_entry(ipc_v6_entry* entry);

struct ipv6_connections {
  using entry = ipc_v6_entry;
  using key = flow_key_v6;
  static constexpr u32 bucket_count = ipc_v6_buckets;

  static ipc_v6_entry** heads(vok_handle* ci) { return ci->ipc_v6; }
  static spinlock_t* lock(vok_handle* ci) { return ci->ipc_v6_lock; }
  static u32& count(vok_handle* ci) { return ci->ipc_v6_count; }

  static u32 bucket(const flow_key_v6& key) { return ipc_v6_bucket(key); }
  /// Ports first: they tell most entries of a chain apart.
  static bool has_key(const ipc_v6_entry& entry, const flow_key_v6& key) {
    return entry.sport == key.sport && entry.dport == key.dport &&
           same_address(entry.sip, key.sip) && same_address(entry.dip, key.dip) &&
           entry.proto == key.proto;
  }
  static flow_key_v6 key_of(const ipc_v6_entry& entry) {
    return {address_at(entry.sip), address_at(entry.dip), entry.sport, entry.dport, entry.proto};
  }
  /// The key of the entry that serves packets with this tuple.
  static flow_key_v6 key_of(const nf_conntrack_tuple& tuple) {
    return {address_at(tuple.src.u3.in6), address_at(tuple.dst.u3.in6), tuple.src.u, tuple.dst.u,
            tuple.dst.protonum};
  }
  static void release(ipc_v6_entry* entry) { release_entry(entry); }
};

using ipv6_table = connection_table<ipv6_connections>;

/// The operations that packets and reports use, see connection_table; `ipc_v6_lock` held.
[[nodiscard]] inline ipc_v6_entry** find_flow(vok_handle* ci, const flow_key_v6& key) {
  return ipv6_table::find(ci, key);
}
inline void insert_flow(vok_handle* ci, ipc_v6_entry* entry) {
  ipv6_table::insert(ci, entry);
}

/// The entry with that key, or null. No reference is taken: it is valid within one RCU read side.
/// Any context.
[[nodiscard]] ipc_v6_entry* _vok_ipc_v6_lkup(vok_handle* ci, wire::in6_addr sip, wire::in6_addr dip,
                                             u8 proto, u16 sport, u16 dport);

/// Removes the entry with that key; any context. 0, or -1 when there is none or no table (logged).
int _vok_ipc_v6_delete(vok_handle* ci, wire::in6_addr sip, wire::in6_addr dip, u8 proto, u16 sport,
                       u16 dport);

/// Number of entries, or -2 (logged) without a handle or table; any context.
[[nodiscard]] int _vok_ipc_v6_count_get(vok_handle* ci);

}  // namespace tarvelo
