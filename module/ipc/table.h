// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv4 connection table: a hash of `ipc_entry` by the addresses, ports and protocol that a
// packet has on arrival. Entries do not age: they leave with their connection, their device or the
// module.
//
// `vok_handle::ipc_lock` (taken with bottom halves off) guards chains, count and entries. An entry
// is freed an RCU grace period after it was unlinked, and its bridge cache reference is dropped
// after the lock is free. The packet path holds the lock from the chain walk until the packet is
// ready to go, so what it found stays in the table as long as it looks at it.
//
// Orphans: an entry whose connection ended while the fast path was switched off
// (`ipc_flag::orphaned`) is no longer connected to anything. No search finds it, so that it is
// never followed and does not stand in the way of a new entry with its key; it goes when the fast
// path is switched on again.
#pragma once

#include "kernel/spinlock.h"
#include "module/core/chain.h"
#include "module/core/handle.h"
#include "tarvelo/ipc_entry.h"

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

[[nodiscard]] inline bool has_key(const ipc_entry& entry, const flow_key& key) {
  return entry.sip == key.sip && entry.dip == key.dip && entry.sport == key.sport &&
         entry.dport == key.dport && entry.proto == key.proto &&
         (entry.flags & ipc_flag::orphaned) == 0;
}

[[nodiscard]] flow_key key_of(const ipc_entry& entry);

/// The link to the entry with that key, or null; `ipc_lock` held.
[[nodiscard]] inline ipc_entry** find_flow(vok_handle* ci, const flow_key& key) {
  return find_link(&ci->ipc[ipc_bucket(key)],
                   [&key](const ipc_entry& entry) { return has_key(entry, key); });
}

/// True when the entry's next hop has been learnt anew since the entry was made, so that the entry
/// may lead to the wrong port; `ipc_lock` held.
[[nodiscard]] bool older_than_bridge_entry(const ipc_entry& entry);

/// Links an entry in front of its chain; `ipc_lock` held.
void insert_flow(vok_handle* ci, ipc_entry* entry);
/// Unlinks the entry that `link` points at; `ipc_lock` held. The caller releases it later.
[[nodiscard]] ipc_entry* take_flow(vok_handle* ci, ipc_entry** link);

/// Drops an unlinked entry's bridge cache reference and frees it after a grace period; any context,
/// no lock held.
void release_entry(ipc_entry* entry);

/// Unlinks every entry for which `match(const ipc_entry&)` holds, in one hold of the lock, and
/// releases them.
template <typename Match>
void remove_matching(vok_handle* ci, Match match) {
  if (ci->ipc == nullptr) return;
  spin_lock_bh(ci->ipc_lock);
  const auto removed = unlink_matching(ci->ipc, ipc_buckets, match);
  write_once(ci->ipc_count, ci->ipc_count - removed.count);
  spin_unlock_bh(ci->ipc_lock);
  release_each(removed, release_entry);
}

/// Published operations; any context. See vok_handle.
[[nodiscard]] ipc_entry* _vok_ipc_lkup(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport,
                                       u16 dport, u8 check_brc);
[[nodiscard]] int _vok_ipc_count_get(vok_handle* ci);

/// Removes the entry with that key. 0, or -1 when there is none or no table (logged).
int _vok_ipc_delete(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport, u16 dport);

void release_all_connections(vok_handle* ci);

}  // namespace tarvelo
