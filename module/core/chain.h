// SPDX-License-Identifier: GPL-2.0-only
//
// The tables' chains: arrays of bucket heads, entries singly linked by `next`. The three tables of
// the module differ in entry, key and lock; how an entry is found, linked and taken out is the same
// and written here once.
//
// The caller holds the table's lock for writing. Links are stored whole, because an empty bucket of
// the bridge cache is recognised without its lock.
#pragma once

#include "kernel/types.h"

namespace tarvelo {

/// The link that points at the first entry of the chain for which `match` holds, or null. The chain
/// is not changed, so a reader's lock will do.
template <typename Entry, typename Match>
[[nodiscard]] inline Entry** find_link(Entry** head, Match match) {
  for (Entry** link = head; *link != nullptr; link = &(*link)->next) {
    if (match(**link)) return link;
  }
  return nullptr;
}

template <typename Entry>
inline void link_first(Entry** head, Entry* entry) {
  entry->next = *head;
  write_once(*head, entry);
}

/// Takes out the entry that `link` points at and returns it.
template <typename Entry>
inline Entry* unlink(Entry** link) {
  Entry* entry = *link;
  write_once(*link, entry->next);
  entry->next = nullptr;
  return entry;
}

/// Entries that were taken out of a table, chained by `next`, to be released once the lock is free.
template <typename Entry>
struct removed_entries {
  Entry* first = nullptr;
  u32 count = 0;
};

/// Takes out every entry of the table for which `match` holds.
template <typename Entry, typename Match>
[[nodiscard]] inline removed_entries<Entry> unlink_matching(Entry** buckets, u32 bucket_count,
                                                            Match match) {
  removed_entries<Entry> removed;
  for (u32 bucket = 0; bucket < bucket_count; ++bucket) {
    Entry** link = &buckets[bucket];
    while (*link != nullptr) {
      if (!match(**link)) {
        link = &(*link)->next;
        continue;
      }
      Entry* entry = unlink(link);
      entry->next = removed.first;
      removed.first = entry;
      ++removed.count;
    }
  }
  return removed;
}

/// Calls `release` for each of the removed entries; no lock held.
template <typename Entry, typename Release>
inline void release_each(const removed_entries<Entry>& removed, Release release) {
  for (Entry* entry = removed.first; entry != nullptr;) {
    Entry* next = entry->next;
    entry->next = nullptr;
    release(entry);
    entry = next;
  }
}

}  // namespace tarvelo
