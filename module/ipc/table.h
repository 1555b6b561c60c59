// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv4 connection table: a hash of `ipc_entry` by the addresses, ports and protocol that a
// packet has on arrival. Entries do not age: they leave with their connection, their device or the
// module.
//
// `vok_handle::ipc_lock` guards the table; what holds for both connection tables is said in
// module/core/connection_table.h. Here an entry may also hold a reference on a bridge cache entry,
// which is dropped after the lock is free.
#pragma once

#include "kernel/nf_conntrack.h"
#include "module/core/connection_table.h"

namespace tarvelo {

/// What entries are found by; stored bytes, that is network byte order.
struct flow_key {
  u32 sip;
  u32 dip;
  u16 sport;
  u16 dport;
  u8 proto;
};

/// A plain sum of the stored words: the kernel side walks these chains too.
[[nodiscard]] constexpr u32 ipc_bucket(const flow_key& key) {
  return (key.sip + key.dip + key.proto + key.sport + key.dport) & (ipc_buckets - 1);
}

/// Drops an unlinked entry's bridge cache reference and frees it after a grace period; any context,
/// no lock held.
void release_entry(ipc_entry* entry);

struct ipv4_connections {
  using entry = ipc_entry;
  using key = flow_key;
  static constexpr u32 bucket_count = ipc_buckets;

  static ipc_entry** heads(vok_handle* ci) { return ci->ipc; }
  static spinlock_t* lock(vok_handle* ci) { return ci->ipc_lock; }
  static u32& count(vok_handle* ci) { return ci->ipc_count; }

  static u32 bucket(const flow_key& key) { return ipc_bucket(key); }
  static bool has_key(const ipc_entry& entry, const flow_key& key) {
    return entry.sip == key.sip && entry.dip == key.dip && entry.sport == key.sport &&
           entry.dport == key.dport && entry.proto == key.proto;
  }
  static flow_key key_of(const ipc_entry& entry) {
    return {entry.sip, entry.dip, entry.sport, entry.dport, entry.proto};
  }
  /// The key of the entry that serves packets with this tuple.
  static flow_key key_of(const nf_conntrack_tuple& tuple) {
    return {tuple.src.u3.ip, tuple.dst.u3.ip, tuple.src.u, tuple.dst.u, tuple.dst.protonum};
  }
  static void release(ipc_entry* entry) { release_entry(entry); }
};

using ipv4_table = connection_table<ipv4_connections>;

/// The operations that packets and reports use, see connection_table; `ipc_lock` held.
[[nodiscard]] inline ipc_entry** find_flow(vok_handle* ci, const flow_key& key) {
  return ipv4_table::find(ci, key);
}
inline void insert_flow(vok_handle* ci, ipc_entry* entry) {
  ipv4_table::insert(ci, entry);
}

/// True when the entry's next hop has been learnt anew since the entry was made, so that the entry
/// may lead to the wrong port; `ipc_lock` held.
[[nodiscard]] inline bool older_than_bridge_entry(const ipc_entry& entry) {
  return entry.brc != nullptr &&
         static_cast<s32>(entry.create_time - read_once(entry.brc->add_time)) < 0;
}

/// Unlinks every entry for which `match(const ipc_entry&)` holds, in one hold of the lock, and
/// releases them.
template <typename Match>
void remove_matching(vok_handle* ci, Match match) {
  ipv4_table::remove_matching(ci, match);
}

/// Published operations; any context. See vok_handle.
[[nodiscard]] ipc_entry* _vok_ipc_lkup(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport,
                                       u16 dport, u8 check_brc);
[[nodiscard]] int _vok_ipc_count_get(vok_handle* ci);

/// Removes the entry with that key. 0, or -1 when there is none or no table (logged).
int _vok_ipc_delete(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport, u16 dport);

}  // namespace tarvelo
