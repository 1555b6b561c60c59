// SPDX-License-Identifier: GPL-2.0-only
//
// The fragment cache of the IPv6 forward: the ports of UDP datagrams whose first fragment went down
// the fast path. See cache.h for what holds for all fragment caches, its lock and its contexts.
//
// The packet path uses the operations on `found_frag_v6`, whose values stay true when the entry
// expires or is reused in the meantime. Identification, addresses and ports are in network byte
// order throughout.
#pragma once

#include "module/fragcache/cache.h"
#include "module/fragcache/ipv6_key.h"

namespace tarvelo {

/// Not a power of two, and the hash is masked with one less: of the 500 buckets the 128 whose
/// numbers lie within that mask are used.
inline constexpr s32 udp_fragment_v6_entries = 500;

struct fragentry_v6 : frag_key_v6, cached_fragment<fragentry_v6> {
  u32 sport;  ///< a 16-bit value
  u32 dport;  ///< a 16-bit value
};

using found_frag_v6 = found_fragment<fragentry_v6, frag_key_v6>;

extern fragment_table<fragentry_v6>* vok_udp_cache_table_v6;  ///< null while not set up
extern s32 vok_udp_cache_size_v6;                             ///< number of buckets and of entries
extern tail_queue<fragentry_v6> vok_udp_cache_list_free_v6;   ///< longest free first

/// Makes the cache; process context. 1, or 0 when memory is short (not logged):
/// vok_udp_fragcache_free_v6() then frees what there is.
[[nodiscard]] int vok_udp_fragCache_v6_init(s32 size);
/// Frees the cache, if there is one; process context, no other caller. `size` as at set-up.
void vok_udp_fragcache_free_v6(s32 size);

/// Fills in `found` and returns true when there is a record of the datagram.
[[nodiscard]] bool vok_find_frag_v6(const frag_key_v6& key, found_frag_v6* found);
/// Records a datagram and fills in `added`. False when no entry is free.
[[nodiscard]] bool vok_add_frag_v6(const frag_key_v6& key, u16 sport, u16 dport,
                                   found_frag_v6* added);
/// Returns a record that one of the two has given, unless it has expired.
void vok_free_cache_v6(const found_frag_v6& found);

/// The entry, or null. It is not pinned: what it stands for may change at once.
[[nodiscard]] fragentry_v6* vok_find_fragentry_v6(u32 id, wire::in6_addr saddr,
                                                  wire::in6_addr daddr, u16 proto);
/// 1 when recorded, 0 when no entry is free.
[[nodiscard]] int vok_add_fragentry_v6(u32 id, wire::in6_addr saddr, u16 sport,
                                       wire::in6_addr daddr, u16 dport, u16 proto);
/// Returns an entry, whatever it stands for by now; nothing happens when it has expired.
void vok_free_cache_v6(fragentry_v6* entry);
/// Timer function; `data` is the entry.
void vok_cache_timeout_v6(unsigned long data);

}  // namespace tarvelo
