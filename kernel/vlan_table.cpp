// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/vlan_table.h"

#include "kernel/errno.h"
#include "kernel/slab.h"
#include "kernel/spinlock.h"

namespace {

struct table_entry {
  table_entry* next;
  net_device* vlan_dev;
  const net_device* real_dev;
  u16 vid;
  callback_head rcu;
};

/// Ids are usually few and close together: their low bits spread them, whatever the device.
constexpr u32 buckets = 256;

constexpr u16 first_vid = 1;
constexpr u16 last_vid = wire::vlan_vid_mask - 1;

constinit spinlock_t table_lock = {};  ///< guards changes of the chains, and `entries`
constinit table_entry* table[buckets] = {};
constinit u32 entries = 0;

table_entry*& bucket_of(u16 vid) noexcept {
  return table[vid % buckets];
}

table_entry* find(const net_device* real_dev, u16 vid) noexcept {
  table_entry* entry = rcu_dereference(bucket_of(vid));
  while (entry != nullptr && (entry->vid != vid || entry->real_dev != real_dev)) {
    entry = rcu_dereference(entry->next);
  }
  return entry;
}

void free_entry(callback_head* head) {
  kfree(reinterpret_cast<u8*>(head) - offsetof(table_entry, rcu));
}

/// Under the lock.
int link_entry(table_entry* entry) noexcept {
  if (find(entry->real_dev, entry->vid) != nullptr) return -EEXIST;
  if (entries >= vlan_table_limit) return -ENOSPC;
  table_entry*& head = bucket_of(entry->vid);
  entry->next = head;
  rcu_assign_pointer(head, entry);
  ++entries;
  return 0;
}

}  // namespace

extern "C" {

int vlan_table_add(net_device* vlan_dev) noexcept {
  const u16 vid = vlan_dev_vlan_id(vlan_dev);
  if (vid < first_vid || vid > last_vid) return -EINVAL;
  auto* const entry = static_cast<table_entry*>(kzalloc(sizeof(table_entry), GFP_KERNEL));
  if (entry == nullptr) return -ENOMEM;
  entry->vlan_dev = vlan_dev;
  entry->real_dev = vlan_dev_real_dev(vlan_dev);
  entry->vid = vid;

  spin_lock_bh(&table_lock);
  const int result = link_entry(entry);
  spin_unlock_bh(&table_lock);
  if (result != 0) kfree(entry);
  return result;
}

void vlan_table_remove(net_device* vlan_dev) noexcept {
  spin_lock_bh(&table_lock);
  table_entry** link = &bucket_of(vlan_dev_vlan_id(vlan_dev));
  while (*link != nullptr && (*link)->vlan_dev != vlan_dev)
    link = &(*link)->next;
  table_entry* const entry = *link;
  if (entry != nullptr) {
    rcu_assign_pointer(*link, entry->next);
    --entries;
  }
  spin_unlock_bh(&table_lock);
  if (entry != nullptr) call_rcu(&entry->rcu, free_entry);
}

net_device* vlan_find_dev(const net_device* real_dev, u16 vid) noexcept {
  if constexpr (kernel_checked) checked_rcu_held(code_place::here());
  const table_entry* entry = find(real_dev, vid);
  return entry != nullptr ? entry->vlan_dev : nullptr;
}

}  // extern "C"
