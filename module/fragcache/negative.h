// SPDX-License-Identifier: GPL-2.0-only
//
// The negative fragment cache: identities of IPv4 datagrams, without ports, each kept until it
// expires. Nothing in the module asks it or fills it; it is there for code linked beside it. See
// cache.h for what holds for all fragment caches, its lock and its contexts.
//
// Identification and addresses are in network byte order throughout.
#pragma once

#include "module/fragcache/cache.h"
#include "module/fragcache/ipv4_key.h"

namespace tarvelo {

inline constexpr s32 negative_fragment_entries = 64;

struct negative_fragEntry : frag_key, cached_fragment<negative_fragEntry> {};

using negative_fragment_table =
    fragment_table_in_one<negative_fragEntry, negative_fragment_entries>;

extern negative_fragment_table* negative_cache_table;            ///< null while not set up
extern tail_queue<negative_fragEntry> negative_cache_list_free;  ///< longest free first

/// Makes the cache; process context. 1, or 0 when memory is short (logged):
/// negative_fragCache_free() then frees what there is.
[[nodiscard]] int negative_fragCache_init();
/// Frees the cache, if there is one; process context, no other caller.
void negative_fragCache_free();

/// The entry, or null. It is not pinned: what it stands for may change at once.
[[nodiscard]] negative_fragEntry* find_negative_fragEntry(u16 id, u32 saddr, u32 daddr, u8 proto);
/// 1 when recorded, 0 when no entry is free (logged).
[[nodiscard]] int add_negative_fragEntry(u16 id, u32 saddr, u32 daddr, u8 proto);
/// Timer function; `data` is the entry.
void negative_cache_timeout(unsigned long data);

}  // namespace tarvelo
