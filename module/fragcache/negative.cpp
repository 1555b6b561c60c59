// SPDX-License-Identifier: GPL-2.0-only
#include "module/fragcache/negative.h"

#include "module/fragcache/ipv4.h"

namespace tarvelo {

constinit negative_fragment_table* negative_cache_table = nullptr;
constinit tail_queue<negative_fragEntry> negative_cache_list_free = {};

namespace {

constinit s32 negative_cache_size = 0;

// Keys are spread as in the IPv4 fragment cache. Masking with this cache's own size comes to the
// same and cannot leave its buckets, whichever of the two is set up.
static_assert(negative_fragment_entries == udp_fragment_entries);

struct negative_description {
  using entry = negative_fragEntry;
  using key = frag_key;
  using table_type = negative_fragment_table;

  static constexpr auto& table = negative_cache_table;
  static constexpr auto& size = negative_cache_size;
  static constexpr auto& free_list = negative_cache_list_free;
  static constexpr auto* expire = negative_cache_timeout;
  static constexpr timer_start start = timer_start::after_unlock;

  static constexpr const char* no_table = "MALLOC Failed! (Udp_FragCache_Table) \n";
  static constexpr const char* no_buckets = nullptr;
  static constexpr const char* no_entry = "MALLOC Failed! (Negative FragCache Table Entry) \n";
  static constexpr const char* full = "\x1b[;32madd negative frag faild\n\x1b[0m";

  [[nodiscard]] static u32 hash(const frag_key& key) { return frag_hash(key); }
};

using cache = fragment_cache<negative_description>;

}  // namespace

int negative_fragCache_init() {
  return cache::set_up(negative_fragment_entries);
}

void negative_fragCache_free() {
  cache::tear_down();
}

negative_fragEntry* find_negative_fragEntry(u16 id, u32 saddr, u32 daddr, u8 proto) {
  return cache::find({id, proto, saddr, daddr}, [](const negative_fragEntry&) {});
}

int add_negative_fragEntry(u16 id, u32 saddr, u32 daddr, u8 proto) {
  return cache::add({id, proto, saddr, daddr}, [](negative_fragEntry&) {}) != nullptr ? 1 : 0;
}

void negative_cache_timeout(unsigned long data) {
  cache::expire(reinterpret_cast<negative_fragEntry*>(data));
}

}  // namespace tarvelo
