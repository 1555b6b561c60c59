// SPDX-License-Identifier: GPL-2.0-only
#include "module/fragcache/ipv4.h"

namespace tarvelo {

constinit fragment_table<fragEntry>* udp_cache_table = nullptr;
constinit s32 udp_cache_size = 0;
constinit tail_queue<fragEntry> udp_cache_list_free = {};

namespace {

struct udp_description {
  using entry = fragEntry;
  using key = frag_key;
  using table_type = fragment_table<fragEntry>;

  static constexpr auto& table = udp_cache_table;
  static constexpr auto& size = udp_cache_size;
  static constexpr auto& free_list = udp_cache_list_free;
  static constexpr auto* expire = cache_timeout;
  static constexpr timer_start start = timer_start::after_unlock;

  static constexpr const char* no_table = "MALLOC Failed! (Udp_FragCache_Table) \n";
  static constexpr const char* no_buckets = "MALLOC Failed! (Udp_FragCache_Table List) \n";
  static constexpr const char* no_entry = "MALLOC Failed! (Path Table Entry) \n";
  static constexpr const char* full = nullptr;

  [[nodiscard]] static u32 hash(const frag_key& key) { return frag_hash(key); }
};

using cache = fragment_cache<udp_description>;

}  // namespace

int udp_fragCache_init(s32 size) {
  return cache::set_up(size);
}

void udp_fragCache_free([[maybe_unused]] s32 size) {
  cache::tear_down();
}

bool find_frag(const frag_key& key, found_frag* found) {
  return cache::find_ports(key, found);
}

bool add_frag(const frag_key& key, u16 sport, u16 dport, found_frag* added) {
  return cache::add_ports(key, sport, dport, added);
}

void free_cache(const found_frag& found) {
  cache::give_back(found.entry, found.key);
}

fragEntry* find_fragEntry(u16 id, u32 saddr, u32 daddr, u8 proto) {
  found_frag found;
  return find_frag({id, proto, saddr, daddr}, &found) ? found.entry : nullptr;
}

int add_fragEntry(u16 id, u32 saddr, u16 sport, u32 daddr, u16 dport, u8 proto) {
  found_frag added;
  return add_frag({id, proto, saddr, daddr}, sport, dport, &added) ? 1 : 0;
}

void free_cache(fragEntry* entry) {
  cache::give_back(entry);
}

void cache_timeout(unsigned long data) {
  cache::expire(reinterpret_cast<fragEntry*>(data));
}

}  // namespace tarvelo
