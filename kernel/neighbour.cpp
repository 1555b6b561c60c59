// SPDX-License-Identifier: GPL-2.0-only
//
// One hash table for each address family. A table's lock guards its chains and count; walks that
// take no lock are RCU read sides. The lock of an entry guards its state and address and is taken
// inside nothing of this file.
#include "kernel/neighbour.h"

#include <cstring>
#include <mutex>

#include "kernel/jiffies.h"
#include "kernel/skbuff.h"
#include "kernel/slab.h"

struct neigh_table {
  static constexpr unsigned buckets = 256;

  u8 key_length;
  u16 protocol;  ///< frame type of the cached header
  u32 limit;     ///< entries
  std::mutex lock;
  u32 count;
  neighbour* bucket[buckets];
};

namespace {

constexpr u32 default_limit = 1024;

unsigned bucket_of(const neigh_table* table, const void* key, const net_device* dev) noexcept {
  constexpr u32 multiplier = 0x9E3779B1;
  const auto* bytes = static_cast<const u8*>(key);
  u32 hash = static_cast<u32>(dev->ifindex);
  for (unsigned i = 0; i < table->key_length; ++i)
    hash = (hash ^ bytes[i]) * multiplier;
  return hash >> 24;
}

bool matches(const neighbour* n, const void* key, const net_device* dev) noexcept {
  return n->dev == dev && std::memcmp(n->primary_key, key, n->tbl->key_length) == 0;
}

/// Table's lock.
neighbour* find_and_hold(neigh_table* table, unsigned bucket, const void* key,
                         const net_device* dev) noexcept {
  for (neighbour* n = table->bucket[bucket]; n != nullptr; n = n->next) {
    if (!matches(n, key, dev)) continue;
    atomic_inc(&n->refcnt);
    return n;
  }
  return nullptr;
}

void free_neighbour(callback_head* head) {
  auto* const n =
      reinterpret_cast<neighbour*>(reinterpret_cast<char*>(head) - offsetof(neighbour, rcu));
  dev_put(n->dev);
  kfree(n);
}

/// The last reference is gone: what still waits for the address will wait in vain.
void end_neighbour(neighbour* n) noexcept {
  if constexpr (kernel_checked) {
    if (timer_pending(&n->timer)) {
      checked_fault("neighbour freed with its timer pending", code_place::here(), {});
    }
  }
  while (n->queue_head != nullptr) {
    sk_buff* skb = n->queue_head;
    n->queue_head = skb->next;
    kfree_skb(skb);
  }
  call_rcu(&n->rcu, free_neighbour);
}

/// Unlinks an entry when it still is in its table; the table's reference is the caller's then.
bool unlink(neigh_table* table, neighbour* gone) noexcept {
  const std::scoped_lock guard(table->lock);
  neighbour** link = &table->bucket[bucket_of(table, gone->primary_key, gone->dev)];
  while (*link != nullptr && *link != gone)
    link = &(*link)->next;
  if (*link == nullptr) return false;
  rcu_assign_pointer(*link, gone->next);
  --table->count;
  return true;
}

/// Rebuilds the cached header. Entry's lock.
void build_header(neighbour* n) noexcept {
  n->hh_valid = (n->nud_state & NUD_VALID) != 0 && n->dev->type == ARPHRD_ETHER;
  if (!n->hh_valid) return;
  wire::ethhdr header;
  std::memcpy(header.h_dest, n->ha, wire::mac_length);
  std::memcpy(header.h_source, n->dev->dev_addr, wire::mac_length);
  header.h_proto = wire::be16(n->tbl->protocol);
  std::memcpy(n->hh_data, &header, sizeof header);
}

/// For readers: the lock is no part of an entry's value.
class reading {
 public:
  explicit reading(const neighbour* n) noexcept : lock_(&const_cast<neighbour*>(n)->lock) {
    spin_lock_bh(lock_);
  }
  ~reading() { spin_unlock_bh(lock_); }
  reading(const reading&) = delete;
  reading& operator=(const reading&) = delete;

 private:
  spinlock_t* lock_;
};

}  // namespace

extern "C" {

constinit neigh_table arp_tbl{4, wire::ethertype::ipv4, default_limit, {}, 0, {}};
constinit neigh_table nd_tbl{16, wire::ethertype::ipv6, default_limit, {}, 0, {}};

neighbour* neigh_lookup(neigh_table* table, const void* key, net_device* dev) noexcept {
  const std::scoped_lock guard(table->lock);
  return find_and_hold(table, bucket_of(table, key, dev), key, dev);
}

neighbour* neigh_create(neigh_table* table, const void* key, net_device* dev) noexcept {
  const std::scoped_lock guard(table->lock);
  const unsigned bucket = bucket_of(table, key, dev);
  if (neighbour* found = find_and_hold(table, bucket, key, dev)) return found;
  if (table->count >= table->limit) return nullptr;
  auto* n = static_cast<neighbour*>(kzalloc(sizeof(neighbour), GFP_ATOMIC));
  if (n == nullptr) return nullptr;
  dev_hold(dev);
  n->dev = dev;
  n->tbl = table;
  std::memcpy(n->primary_key, key, table->key_length);
  atomic_set(&n->refcnt, 2);  // the table's and the caller's
  n->updated = n->confirmed = jiffies;
  n->next = table->bucket[bucket];
  rcu_assign_pointer(table->bucket[bucket], n);
  ++table->count;
  return n;
}

void neigh_release(neighbour* neigh) noexcept {
  if constexpr (kernel_checked) {
    if (atomic_read(&neigh->refcnt) <= 0) {
      checked_fault("neighbour reference dropped below zero", code_place::here(), {});
    }
  }
  if (atomic_dec_and_test(&neigh->refcnt)) end_neighbour(neigh);
}

bool neigh_update(neighbour* neigh, const u8* lladdr, u8 state) noexcept {
  spin_lock_bh(&neigh->lock);
  const bool was_valid = (neigh->nud_state & NUD_VALID) != 0;
  const bool moved = lladdr != nullptr && std::memcmp(neigh->ha, lladdr, sizeof neigh->ha) != 0;
  if (moved) std::memcpy(neigh->ha, lladdr, sizeof neigh->ha);
  if (neigh->nud_state != state) neigh->updated = jiffies;
  if ((state & (NUD_REACHABLE | NUD_NOARP | NUD_PERMANENT)) != 0) neigh->confirmed = jiffies;
  write_once(neigh->nud_state, state);
  build_header(neigh);
  spin_unlock_bh(&neigh->lock);
  return was_valid && moved;
}

void neigh_remove(neighbour* neigh) noexcept {
  if (unlink(neigh->tbl, neigh)) neigh_release(neigh);
}

void neigh_flush_dev(neigh_table* table, const net_device* dev) noexcept {
  rcu_read_lock();
  for (neighbour*& head : table->bucket) {
    for (neighbour* n = rcu_dereference(head); n != nullptr; n = rcu_dereference(n->next)) {
      if (dev == nullptr || n->dev == dev) neigh_remove(n);
    }
  }
  rcu_read_unlock();
}

void neigh_for_each(neigh_table* table, void (*visit)(neighbour* neigh, void* context),
                    void* context) noexcept {
  rcu_read_lock();
  for (neighbour*& head : table->bucket) {
    for (neighbour* n = rcu_dereference(head); n != nullptr; n = rcu_dereference(n->next)) {
      visit(n, context);
    }
  }
  rcu_read_unlock();
}

void neigh_table_limit(neigh_table* table, u32 entries) noexcept {
  const std::scoped_lock guard(table->lock);
  table->limit = entries;
}

bool neigh_hh_copy(const neighbour* neigh, u8 header[wire::ethernet_length]) noexcept {
  const reading guard(neigh);
  if (neigh->hh_valid) std::memcpy(header, neigh->hh_data, wire::ethernet_length);
  return neigh->hh_valid;
}

void neigh_ha_snapshot(u8 ha[wire::mac_length], const neighbour* neigh) noexcept {
  const reading guard(neigh);
  std::memcpy(ha, neigh->ha, wire::mac_length);
}

}  // extern "C"
