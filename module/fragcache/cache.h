// SPDX-License-Identifier: GPL-2.0-only
//
// What the fragment caches have in common. Only the first fragment of a datagram shows its ports; a
// cache keeps them under the datagram's identity, for the fragments that follow. The caches differ
// in key, hash, size and messages, which is all that their own files say.
//
// All entries are allocated at set-up, so that packets never allocate: an entry goes from the head
// of the free list to the tail of a bucket when it is added, and to the tail of the free list when
// it is returned or has lived for `fragment_lifetime`. When none is free an add fails; nothing is
// evicted, or a flood of first fragments would push out the datagrams that are half-way through.
// Entries with equal keys are allowed, and the oldest is found.
//
// Invariant: an entry is in exactly one bucket and `in_use`, or on the free list and not. Entries
// are freed only by the tear-down, so a pointer to one stays good, but not what it stands for: it
// may expire and be reused at any time. Hence lookups copy what they find under the lock, and a
// return says which key it means.
//
// Timers may be late. One that was started after the lock was let go can start for an entry that
// has already been returned, and one that waits for the lock can meet the entry's next use.
// `deadline`, written under the lock, tells them apart: an expiry that comes before it is put off.
//
// Lock: one spinlock for each cache guards buckets, free list and entries. It is an inner lock:
// callers may hold a connection table's lock, and nothing but the timers' own is taken inside.
// Packets and timers (softirq) take it plainly, set-up and tear-down (process context, nobody else
// inside) with bottom halves off. find, add and the returns need a cache that is set up.
#pragma once

#include "kernel/jiffies.h"
#include "kernel/printk.h"
#include "kernel/spinlock.h"
#include "kernel/timer.h"
#include "module/core/memory.h"
#include "module/fragcache/tail_queue.h"

namespace tarvelo {

/// How long an entry that nobody returns is kept: datagrams reassemble within seconds or not at
/// all.
inline constexpr u32 fragment_lifetime = 10000;  // jiffies

/// The part of every entry that the cache itself uses. `Entry` derives from this and from its key.
template <typename Entry>
struct cached_fragment {
  u8 in_use;     ///< 1 while in a bucket
  u32 deadline;  ///< jiffies; meaningful while in use
  timer_list timer;
  tail_link<Entry> hash_link;
  tail_link<Entry> free_link;
};

/// Cache record whose buckets are a block of their own.
template <typename Entry>
struct fragment_table {
  spinlock_t lock;
  tail_queue<Entry>* buckets;  ///< null while not allocated

  [[nodiscard]] bool allocate_buckets(s32 count) {
    buckets = static_cast<tail_queue<Entry>*>(
        plat_malloc_t(static_cast<std::size_t>(count) * sizeof(tail_queue<Entry>)));
    return buckets != nullptr;
  }
  void free_buckets(s32 count) {
    plat_mfree_t(buckets, static_cast<std::size_t>(count) * sizeof(tail_queue<Entry>));
  }
  [[nodiscard]] bool has_buckets() const { return buckets != nullptr; }
};

/// Cache record that has its buckets in the same block.
template <typename Entry, s32 Count>
struct fragment_table_in_one {
  spinlock_t lock;
  tail_queue<Entry> buckets[Count];

  [[nodiscard]] bool allocate_buckets(s32) { return true; }
  void free_buckets(s32) {}
  [[nodiscard]] bool has_buckets() const { return true; }
};

/// The ports of a datagram as its first fragment showed them, with what is needed to return the
/// entry they came from.
template <typename Entry, typename Key>
struct found_fragment {
  Entry* entry;
  Key key;
  u16 sport;  ///< network byte order
  u16 dport;  ///< network byte order
};

enum class timer_start : u8 {
  after_unlock,
  under_lock,
};

/// The operations of the cache that `Cache` describes:
///   entry, key, table_type   its types; `entry` derives from `key`, which has operator==
///   table, size, free_list   references to its globals
///   hash(key)                before it is masked with size - 1, which must leave it below size
///   expire(data)             the timers' function
///   start                    when an added entry's timer is started
///   no_table, no_buckets, no_entry, full   messages, null for none
template <typename Cache>
class fragment_cache {
  using entry = typename Cache::entry;
  using key = typename Cache::key;
  using table_type = typename Cache::table_type;

  static constexpr auto in_bucket = &entry::hash_link;
  static constexpr auto on_free_list = &entry::free_link;

 public:
  /// Makes `size` buckets and entries; process context. 1, or 0 when memory is short: what was made
  /// so far then waits for tear_down().
  [[nodiscard]] static int set_up(s32 size) {
    Cache::table = static_cast<table_type*>(plat_malloc_cleared(sizeof(table_type)));
    if (Cache::table == nullptr) return failed(Cache::no_table);
    spin_lock_init(&Cache::table->lock);
    Cache::size = size;
    make_empty(Cache::free_list);
    if (!Cache::table->allocate_buckets(size)) return failed(Cache::no_buckets);
    for (s32 bucket = 0; bucket < size; ++bucket)
      make_empty(Cache::table->buckets[bucket]);
    for (s32 made = 0; made < size; ++made) {
      if (!make_entry()) return failed(Cache::no_entry);
    }
    return 1;
  }

  /// Frees the cache, also one whose set-up failed half-way; process context, with no caller left
  /// inside and none to come. Does nothing when there is no cache.
  static void tear_down() {
    if (Cache::table == nullptr) return;
    if (Cache::table->has_buckets()) return_all();
    free_entries();
    Cache::table->free_buckets(Cache::size);
    plat_mfree_t(Cache::table, sizeof(table_type));
    Cache::table = nullptr;
  }

  /// The oldest entry with that key, or null. `read(const entry&)` is called for it under the lock.
  template <typename Read>
  [[nodiscard]] static entry* find(const key& wanted, Read read) {
    const tail_queue<entry>& bucket = bucket_of(wanted);
    spin_lock(&Cache::table->lock);
    entry* found = bucket.first;
    while (found != nullptr && !has_key(*found, wanted))
      found = (found->*in_bucket).next;
    if (found != nullptr) read(static_cast<const entry&>(*found));
    spin_unlock(&Cache::table->lock);
    return found;
  }

  /// Takes a free entry into use. Null when there is none. `fill(entry&)` is called for it under
  /// the lock, to set what is not part of the key.
  template <typename Fill>
  [[nodiscard]] static entry* add(const key& added_key, Fill fill) {
    const u32 deadline = jiffies + fragment_lifetime;
    tail_queue<entry>& bucket = bucket_of(added_key);
    spin_lock(&Cache::table->lock);
    entry* added = Cache::free_list.first;
    if (added == nullptr) {
      report(Cache::full);
      spin_unlock(&Cache::table->lock);
      return nullptr;
    }
    static_cast<key&>(*added) = added_key;
    fill(*added);
    added->deadline = deadline;
    added->in_use = 1;
    unlink_from<on_free_list>(Cache::free_list, added);
    append<in_bucket>(bucket, added);
    if constexpr (Cache::start == timer_start::under_lock) start_timer(added, deadline);
    spin_unlock(&Cache::table->lock);
    if constexpr (Cache::start == timer_start::after_unlock) start_timer(added, deadline);
    return added;
  }

  /// find() for entries with ports: fills in `found` and returns true when there is one.
  [[nodiscard]] static bool find_ports(const key& wanted, found_fragment<entry, key>* found) {
    found->key = wanted;
    found->entry = find(wanted, [found](const entry& oldest) {
      found->sport = static_cast<u16>(oldest.sport);
      found->dport = static_cast<u16>(oldest.dport);
    });
    return found->entry != nullptr;
  }

  /// add() for entries with ports: fills in `added` and returns true when there was a free one.
  [[nodiscard]] static bool add_ports(const key& added_key, u16 sport, u16 dport,
                                      found_fragment<entry, key>* added) {
    added->key = added_key;
    added->sport = sport;
    added->dport = dport;
    added->entry = add(added_key, [sport, dport](entry& filled) {
      filled.sport = sport;
      filled.dport = dport;
    });
    return added->entry != nullptr;
  }

  /// Returns an entry to the free list, whatever it stands for now; one that is there is left
  /// alone.
  static void give_back(entry* returned) {
    spin_lock(&Cache::table->lock);
    if (returned->in_use != 0) stop_and_return(returned);
    spin_unlock(&Cache::table->lock);
  }

  /// The same, unless the entry stands for another key by now.
  static void give_back(entry* returned, const key& found_key) {
    spin_lock(&Cache::table->lock);
    if (returned->in_use != 0 && has_key(*returned, found_key)) stop_and_return(returned);
    spin_unlock(&Cache::table->lock);
  }

  /// The work of the timers' function.
  static void expire(entry* expired) {
    spin_lock(&Cache::table->lock);
    if (expired->in_use != 0) {
      if (time_after_eq(jiffies, expired->deadline)) {
        move_to_free_list(expired);
      } else {
        start_timer(expired, expired->deadline);
      }
    }
    spin_unlock(&Cache::table->lock);
  }

 private:
  static void report(const char* message) {
    if (message != nullptr) printk("%s", message);
  }

  [[nodiscard]] static int failed(const char* message) {
    report(message);
    return 0;
  }

  [[nodiscard]] static bool make_entry() {
    auto* made = static_cast<entry*>(plat_malloc_cleared(sizeof(entry)));
    if (made == nullptr) return false;
    setup_timer(&made->timer, Cache::expire, reinterpret_cast<unsigned long>(made));
    append<on_free_list>(Cache::free_list, made);
    return true;
  }

  [[nodiscard]] static bool has_key(const entry& candidate, const key& wanted) {
    return static_cast<const key&>(candidate) == wanted;
  }

  [[nodiscard]] static tail_queue<entry>& bucket_of(const key& of) {
    return Cache::table->buckets[Cache::hash(of) & static_cast<u32>(Cache::size - 1)];
  }

  /// Not add_timer(): a late start can have left the timer pending.
  static void start_timer(entry* started, u32 deadline) { mod_timer(&started->timer, deadline); }

  /// Under the lock, so that it is this use's timer that is stopped and not the next one's.
  static void stop_and_return(entry* returned) {
    del_timer(&returned->timer);
    move_to_free_list(returned);
  }

  static void move_to_free_list(entry* moved) {
    moved->in_use = 0;
    unlink_from<in_bucket>(bucket_of(*moved), moved);
    append<on_free_list>(Cache::free_list, moved);
  }

  /// One entry for each hold of the lock. Timers run meanwhile, so each time the bucket's first
  /// entry is taken and no successor is remembered.
  static void return_all() {
    for (s32 bucket = 0; bucket < Cache::size; ++bucket) {
      while (return_first(Cache::table->buckets[bucket])) {
      }
    }
  }

  [[nodiscard]] static bool return_first(const tail_queue<entry>& bucket) {
    spin_lock_bh(&Cache::table->lock);
    entry* first = bucket.first;
    if (first != nullptr) move_to_free_list(first);
    spin_unlock_bh(&Cache::table->lock);
    return first != nullptr;
  }

  /// Stops the timers of all entries, not only of those that were in use: one can be pending after
  /// a late start, and one that has just expired may still be about to let go of the lock.
  static void free_entries() {
    while (Cache::free_list.first != nullptr) {
      entry* freed = Cache::free_list.first;
      del_timer_sync(&freed->timer);
      spin_lock_bh(&Cache::table->lock);
      unlink_from<on_free_list>(Cache::free_list, freed);
      spin_unlock_bh(&Cache::table->lock);
      plat_mfree_t(freed, sizeof(entry));
    }
  }
};

}  // namespace tarvelo
