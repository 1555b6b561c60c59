// SPDX-License-Identifier: GPL-2.0-only
#include "module/fragcache/ipv6.h"

namespace tarvelo {

constinit fragment_table<fragentry_v6>* vok_udp_cache_table_v6 = nullptr;
constinit s32 vok_udp_cache_size_v6 = 0;
constinit tail_queue<fragentry_v6> vok_udp_cache_list_free_v6 = {};

namespace {

struct udp_v6_description {
  using entry = fragentry_v6;
  using key = frag_key_v6;
  using table_type = fragment_table<fragentry_v6>;

  static constexpr auto& table = vok_udp_cache_table_v6;
  static constexpr auto& size = vok_udp_cache_size_v6;
  static constexpr auto& free_list = vok_udp_cache_list_free_v6;
  static constexpr auto* expire = vok_cache_timeout_v6;
  static constexpr timer_start start = timer_start::under_lock;

  static constexpr const char* no_table = nullptr;
  static constexpr const char* no_buckets = nullptr;
  static constexpr const char* no_entry = nullptr;
  static constexpr const char* full = nullptr;

  [[nodiscard]] static u32 hash(const frag_key_v6& key) { return frag_hash_v6(key); }
};

using cache = fragment_cache<udp_v6_description>;

}  // namespace

int vok_udp_fragCache_v6_init(s32 size) {
  return cache::set_up(size);
}

void vok_udp_fragcache_free_v6([[maybe_unused]] s32 size) {
  cache::tear_down();
}

bool vok_find_frag_v6(const frag_key_v6& key, found_frag_v6* found) {
  return cache::find_ports(key, found);
}

bool vok_add_frag_v6(const frag_key_v6& key, u16 sport, u16 dport, found_frag_v6* added) {
  return cache::add_ports(key, sport, dport, added);
}

void vok_free_cache_v6(const found_frag_v6& found) {
  cache::give_back(found.entry, found.key);
}

fragentry_v6* vok_find_fragentry_v6(u32 id, wire::in6_addr saddr, wire::in6_addr daddr, u16 proto) {
  found_frag_v6 found;
  return vok_find_frag_v6({id, saddr, daddr, proto}, &found) ? found.entry : nullptr;
}

int vok_add_fragentry_v6(u32 id, wire::in6_addr saddr, u16 sport, wire::in6_addr daddr, u16 dport,
                         u16 proto) {
  found_frag_v6 added;
  return vok_add_frag_v6({id, saddr, daddr, proto}, sport, dport, &added) ? 1 : 0;
}

void vok_free_cache_v6(fragentry_v6* entry) {
  cache::give_back(entry);
}

void vok_cache_timeout_v6(unsigned long data) {
  cache::expire(reinterpret_cast<fragentry_v6*>(data));
}

}  // namespace tarvelo
