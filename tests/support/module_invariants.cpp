// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/module_invariants.h"

#include <map>
#include <set>

#include "kernel/fast_path.h"
#include "module/brc/table.h"
#include "module/fragcache/ipv4.h"
#include "module/fragcache/ipv6.h"
#include "module/fragcache/negative.h"
#include "module/ipc/table.h"
#include "module/ipv6/table.h"

namespace tarvelo::test {
namespace {

using references = std::map<const ::brc*, s32>;

[[nodiscard]] std::string at(const char* rule, u32 bucket) {
  return std::string(rule) + " (bucket " + std::to_string(bucket) + ")";
}

void note_reference(const ipc_entry& entry, references* held) {
  if (entry.brc != nullptr) ++(*held)[entry.brc];
}
void note_reference(const ipc_v6_entry&, references*) {}

[[nodiscard]] const char* broken_in(const nf_conn* ct) {
  if (ct == nullptr) return "a connection entry without connection";
  if (ct->ct_general.use.counter <= 0) return "a connection entry of a connection that has ended";
  if (ct->vok_ext == nullptr) return "a connection entry without extension record";
  const bool marked = (ct->vok_ext->flags & ct_ext_flag::ever_added) != 0;
  return marked ? nullptr : "a connection entry whose connection does not know of it";
}

template <typename Table>
[[nodiscard]] std::string broken_in_table(vok_handle* ci, references* held) {
  u32 linked = 0;
  for (u32 bucket = 0; bucket < Table::bucket_count; ++bucket) {
    for (auto* entry = Table::heads(ci)[bucket]; entry != nullptr; entry = entry->next) {
      ++linked;
      note_reference(*entry, held);
      const auto key = Table::key_of(*entry);
      if (Table::bucket(key) != bucket) return at("a connection entry in another's chain", bucket);
      if ((entry->flags & ipc_flag::orphaned) != 0) {
        if (entry->ct != nullptr) return at("an orphan that names a connection", bucket);
        continue;
      }
      if (const char* rule = broken_in(entry->ct)) return at(rule, bucket);
      auto** first = connection_table<Table>::find(ci, key);
      if (first == nullptr || *first != entry) return at("two connection entries alike", bucket);
    }
  }
  return linked == Table::count(ci) ? "" : "the count of connections is not that of the chains";
}

[[nodiscard]] std::string broken_in_bridge_cache(vok_handle* ci, const references& held) {
  std::set<const ::brc*> linked;
  for (u32 bucket = 0; bucket < brc_buckets; ++bucket) {
    for (const ::brc* host = ci->brc[bucket]; host != nullptr; host = host->next) {
      linked.insert(host);
      if (brc_bucket(host->dmac) != bucket) return at("a bridge entry in another's chain", bucket);
      const auto users = held.find(host);
      const s32 expected = 1 + (users == held.end() ? 0 : users->second);
      if (host->refcnt != expected) return at("a bridge entry's references are wrong", bucket);
    }
  }
  for (const auto& [host, users] : held) {
    if (!linked.contains(host) && host->refcnt != users) {
      return "a removed bridge entry's references are wrong";
    }
  }
  return "";
}

template <typename Table, typename Entry>
[[nodiscard]] std::string broken_in_fragments(const Table& table, s32 buckets, s32 entries,
                                              const tail_queue<Entry>& free_list) {
  s32 seen = 0;
  for (s32 bucket = 0; bucket < buckets; ++bucket) {
    for (const Entry* e = table.buckets[bucket].first; e != nullptr; e = e->hash_link.next) {
      ++seen;
      if (e->in_use != 1) return "a fragment entry in a bucket that is not in use";
    }
  }
  for (const Entry* e = free_list.first; e != nullptr; e = e->free_link.next) {
    ++seen;
    if (e->in_use != 0) return "a free fragment entry that is in use";
  }
  return seen == entries ? "" : "a fragment entry is neither free nor in a bucket";
}

[[nodiscard]] std::string broken_in_fragment_caches() {
  std::string rule =
      broken_in_fragments(*udp_cache_table, udp_cache_size, udp_cache_size, udp_cache_list_free);
  if (!rule.empty()) return rule;
  rule = broken_in_fragments(*vok_udp_cache_table_v6, vok_udp_cache_size_v6, vok_udp_cache_size_v6,
                             vok_udp_cache_list_free_v6);
  if (!rule.empty()) return rule;
  return broken_in_fragments(*negative_cache_table, negative_fragment_entries,
                             negative_fragment_entries, negative_cache_list_free);
}

}  // namespace

std::string broken_invariant() {
  vok_handle* ci = read_once(kcih);
  if (ci == nullptr) return "";
  references held;
  std::string rule = broken_in_table<ipv4_connections>(ci, &held);
  if (rule.empty()) rule = broken_in_table<ipv6_connections>(ci, &held);
  if (rule.empty()) rule = broken_in_bridge_cache(ci, held);
  if (rule.empty()) rule = broken_in_fragment_caches();
  return rule;
}

}  // namespace tarvelo::test
