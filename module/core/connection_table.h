// SPDX-License-Identifier: GPL-2.0-only
//
// What the two connection tables have in common: a hash of entries by their flow key, guarded by
// one lock (taken with bottom halves off) for chains, count and entries. The tables differ in key,
// hash, lock and in what an entry holds, which a description says:
//
//   entry, key                    types; `entry` is chained by `next` and has `flags` and `ct`
//   bucket_count                  number of buckets
//   heads(ci)                     the bucket heads, null when there is no table
//   lock(ci)                      the spinlock
//   count(ci)                     reference to the number of entries
//   bucket(key)                   below bucket_count
//   has_key(entry, key)           for linked entries, without regard to orphans
//   key_of(entry), key_of(tuple)  what they are found by
//   release(entry)                lets go of an unlinked entry; any context, no lock held
//
// An entry is freed an RCU grace period after it was unlinked. The packet path holds the lock from
// the chain walk until the packet is ready to go, so what it found stays in the table as long as it
// looks at it.
//
// Orphans: an entry whose connection ended while the fast path was switched off
// (`ipc_flag::orphaned`) is no longer connected to anything. No search finds it, so that it is
// never followed and does not stand in the way of a new entry with its key; it goes when the fast
// path is switched on again, or with its device.
#pragma once

#include "kernel/printk.h"
#include "kernel/spinlock.h"
#include "module/core/chain.h"
#include "module/core/handle.h"
#include "tarvelo/ipc_entry.h"

namespace tarvelo {

/// The operations of the table that `Table` describes; `ci` has that table unless said otherwise.
template <typename Table>
struct connection_table {
  using entry = typename Table::entry;
  using key = typename Table::key;

  /// The link to the entry with that key, or null; lock held.
  [[nodiscard]] static entry** find(vok_handle* ci, const key& wanted) {
    return find_link(&Table::heads(ci)[Table::bucket(wanted)], [&wanted](const entry& candidate) {
      return Table::has_key(candidate, wanted) && !is_orphaned(candidate);
    });
  }

  /// Links an entry in front of its chain; lock held.
  static void insert(vok_handle* ci, entry* added) {
    link_first(&Table::heads(ci)[Table::bucket(Table::key_of(*added))], added);
    write_once(Table::count(ci), Table::count(ci) + 1);
  }

  /// Unlinks the entry that `link` points at; lock held. The caller releases it later.
  [[nodiscard]] static entry* take(vok_handle* ci, entry** link) {
    write_once(Table::count(ci), Table::count(ci) - 1);
    return unlink(link);
  }

  /// The entry with that key if `accept(const entry&)` holds for it, or null. No reference is
  /// taken: the entry is valid within the caller's RCU read side. Null without a table.
  template <typename Accept>
  [[nodiscard]] static entry* look_up(vok_handle* ci, const key& wanted, Accept accept) {
    if (!exists(ci)) return nullptr;
    spin_lock_bh(Table::lock(ci));
    entry** link = find(ci, wanted);
    entry* found = link != nullptr && accept(static_cast<const entry&>(**link)) ? *link : nullptr;
    spin_unlock_bh(Table::lock(ci));
    return found;
  }

  /// Removes the entry with that key. 0, or -1 when there is none or no table (logged as
  /// `reporter`).
  [[nodiscard]] static int remove(vok_handle* ci, const key& unwanted, const char* reporter) {
    if (!exists(ci)) {
      printk("%s: Invalid input (ci %p ipc %p)", reporter, static_cast<void*>(ci),
             static_cast<void*>(nullptr));
      return -1;
    }
    spin_lock_bh(Table::lock(ci));
    entry** link = find(ci, unwanted);
    entry* removed = link != nullptr ? take(ci, link) : nullptr;
    spin_unlock_bh(Table::lock(ci));
    if (removed == nullptr) return -1;
    Table::release(removed);
    return 0;
  }

  /// Unlinks every entry for which `match(const entry&)` holds, in one hold of the lock, and
  /// releases them. Nothing without a table.
  template <typename Match>
  static void remove_matching(vok_handle* ci, Match match) {
    if (!exists(ci)) return;
    spin_lock_bh(Table::lock(ci));
    const auto removed = unlink_matching(Table::heads(ci), Table::bucket_count, match);
    write_once(Table::count(ci), Table::count(ci) - removed.count);
    spin_unlock_bh(Table::lock(ci));
    release_each(removed, Table::release);
  }

  /// The connection of the entry with that key is going and must not be reached through it again:
  /// the entry is removed, or orphaned while the fast path is switched off. The switch is looked at
  /// under the lock: once it is set and the orphans are swept, no new orphan may appear.
  static void cut_off(vok_handle* ci, const key& ended) {
    if (!exists(ci)) return;
    entry* removed = nullptr;
    spin_lock_bh(Table::lock(ci));
    if (entry** link = find(ci, ended); link != nullptr) {
      if (read_once(ci->enable) != 0) {
        removed = take(ci, link);
      } else {
        (*link)->flags |= ipc_flag::orphaned;
        (*link)->ct = nullptr;
      }
    }
    spin_unlock_bh(Table::lock(ci));
    if (removed != nullptr) Table::release(removed);
  }

  /// After the fast path has been switched on.
  static void remove_orphans(vok_handle* ci) { remove_matching(ci, is_orphaned); }

  static void remove_all(vok_handle* ci) {
    remove_matching(ci, [](const entry&) { return true; });
  }

  /// Number of entries, or -2 without a handle or table (logged as `reporter`).
  [[nodiscard]] static int size(vok_handle* ci, const char* reporter) {
    if (!exists(ci)) {
      printk("%s: Invalid input (ci %p)", reporter, static_cast<void*>(ci));
      return -2;
    }
    return static_cast<int>(read_once(Table::count(ci)));
  }

  [[nodiscard]] static bool exists(vok_handle* ci) {
    return ci != nullptr && Table::heads(ci) != nullptr;
  }

 private:
  [[nodiscard]] static bool is_orphaned(const entry& candidate) {
    return (candidate.flags & ipc_flag::orphaned) != 0;
  }
};

}  // namespace tarvelo
