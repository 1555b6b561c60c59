// SPDX-License-Identifier: GPL-2.0-only
#include "stack/conntrack_table.h"

#include <algorithm>
#include <bit>
#include <random>

#include "stack/conntrack_packet.h"

namespace tarvelo::stack {
namespace {

/// Bounds of the number of buckets: a small table should not search long chains, and a large one
/// need not have a bucket for each of millions of connections.
constexpr u32 buckets_min = 1024;
constexpr u32 buckets_max = 1U << 20;

[[nodiscard]] u64 random_key() {
  std::random_device source;
  return u64{source()} << 32 | source();
}

/// One round of mixing: a multiplication whose upper half is folded back spreads every input bit.
[[nodiscard]] constexpr u64 mix(u64 state, u64 word) noexcept {
  constexpr u64 odd = 0x9E3779B97F4A7C15;
  u64 mixed = (state ^ word) * odd;
  mixed ^= mixed >> 32;
  mixed *= 0xD6E8FEB86659FD93;
  return mixed ^ (mixed >> 29) ^ std::rotl(state, 23);
}

}  // namespace

u64 hash_tuple(const nf_conntrack_tuple& tuple, u64 key) noexcept {
  u64 state = key;
  for (unsigned word = 0; word < 4; ++word) {
    state = mix(state, u64{tuple.src.u3.all[word]} << 32 | tuple.dst.u3.all[word]);
  }
  const u64 rest = u64{tuple.src.u} << 32 | u64{tuple.dst.u} << 16 | tuple.dst.protonum;
  return mix(mix(state, rest), key);
}

conntrack_table::conntrack_table(u32 capacity)
    : buckets_(std::bit_ceil(std::clamp(capacity, buckets_min, buckets_max)), nullptr),
      key_(random_key()) {}

std::size_t conntrack_table::bucket_of(const nf_conntrack_tuple& tuple) const noexcept {
  return static_cast<std::size_t>(hash_tuple(tuple, key_)) & (buckets_.size() - 1);
}

found_connection conntrack_table::find(const nf_conntrack_tuple& tuple) const noexcept {
  for (const tuple_link* at = buckets_[bucket_of(tuple)]; at != nullptr; at = at->next) {
    if (same_tuple(at->owner->ct->tuple[at->dir], tuple)) return {at->owner, at->dir};
  }
  return {nullptr, IP_CT_DIR_ORIGINAL};
}

void conntrack_table::insert(connection& c) noexcept {
  for (tuple_link& link : c.links) {
    tuple_link*& head = buckets_[bucket_of(c.ct->tuple[link.dir])];
    link.next = head;
    head = &link;
  }
  c.table = this;
  write_once(size_, size_ + 1);
}

void conntrack_table::remove(connection& c) noexcept {
  for (tuple_link& link : c.links) {
    tuple_link** at = &buckets_[bucket_of(c.ct->tuple[link.dir])];
    while (*at != &link)
      at = &(*at)->next;
    *at = link.next;
    link.next = nullptr;
  }
  c.table = nullptr;
  write_once(size_, size_ - 1);
}

connection* conntrack_table::any_from(std::size_t* cursor) const noexcept {
  for (; *cursor < buckets_.size(); ++*cursor) {
    if (buckets_[*cursor] != nullptr) return buckets_[*cursor]->owner;
  }
  return nullptr;
}

}  // namespace tarvelo::stack
