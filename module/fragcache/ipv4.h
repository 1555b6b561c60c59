// SPDX-License-Identifier: GPL-2.0-only
//
// The fragment cache of the IPv4 forward: the ports of UDP datagrams whose first fragment went down
// the fast path. See cache.h for what holds for all fragment caches, its lock and its contexts.
//
// The packet path uses the operations on `found_frag`, whose values stay true when the entry
// expires or is reused in the meantime. Identification, addresses and ports are in network byte
// order throughout.
#pragma once

#include "module/fragcache/cache.h"
#include "module/fragcache/ipv4_key.h"

namespace tarvelo {

inline constexpr s32 udp_fragment_entries = 64;

struct fragEntry : frag_key, cached_fragment<fragEntry> {
  u16 sport;
  u16 dport;
};

using found_frag = found_fragment<fragEntry, frag_key>;

extern fragment_table<fragEntry>* udp_cache_table;  ///< null while not set up
extern s32 udp_cache_size;                          ///< number of buckets and of entries
extern tail_queue<fragEntry> udp_cache_list_free;   ///< longest free first

/// Makes the cache; process context. `size` is a power of two, or some buckets stay empty. 1, or 0
/// when memory is short (logged): udp_fragCache_free() then frees what there is.
[[nodiscard]] int udp_fragCache_init(s32 size);
/// Frees the cache, if there is one; process context, no other caller. `size` as at set-up.
void udp_fragCache_free(s32 size);

/// Fills in `found` and returns true when there is a record of the datagram.
[[nodiscard]] bool find_frag(const frag_key& key, found_frag* found);
/// Records a datagram and fills in `added`. False when no entry is free.
[[nodiscard]] bool add_frag(const frag_key& key, u16 sport, u16 dport, found_frag* added);
/// Returns a record that find_frag() or add_frag() has given, unless it has expired.
void free_cache(const found_frag& found);

/// The entry, or null. It is not pinned: what it stands for may change at once.
[[nodiscard]] fragEntry* find_fragEntry(u16 id, u32 saddr, u32 daddr, u8 proto);
/// 1 when recorded, 0 when no entry is free.
[[nodiscard]] int add_fragEntry(u16 id, u32 saddr, u16 sport, u32 daddr, u16 dport, u8 proto);
/// Returns an entry, whatever it stands for by now; nothing happens when it has expired.
void free_cache(fragEntry* entry);
/// Timer function; `data` is the entry.
void cache_timeout(unsigned long data);

}  // namespace tarvelo
