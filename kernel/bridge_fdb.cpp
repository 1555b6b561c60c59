// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/errno.h"
#include "kernel/if_bridge.h"
#include "kernel/jiffies.h"
#include "kernel/slab.h"
#include "kernel/string.h"

namespace {

/// 2^32 divided by the golden ratio: spreads addresses that differ in few bits.
constexpr u32 hash_multiplier = 0x9E3779B1;
constexpr unsigned hash_shift = 24;
static_assert(br_fdb_buckets == 1U << (32 - hash_shift));

u32 bucket_of(const u8* addr) noexcept {
  u32 low;
  memcpy(&low, addr + wire::mac_length - sizeof low, sizeof low);
  const u32 high = static_cast<u32>(addr[0]) | static_cast<u32>(addr[1]) << 8;
  return ((low ^ high) * hash_multiplier) >> hash_shift;
}

bool has_address(const net_bridge_fdb_entry* entry, const u8* addr) noexcept {
  return memcmp(entry->addr, addr, sizeof entry->addr) == 0;
}

/// Inside an RCU read side or under the lock.
net_bridge_fdb_entry* find(const net_bridge* br, const u8* addr) noexcept {
  net_bridge_fdb_entry* entry = rcu_dereference(br->hash[bucket_of(addr)]);
  while (entry != nullptr && !has_address(entry, addr))
    entry = rcu_dereference(entry->next);
  return entry;
}

void free_entry(callback_head* head) {
  kfree(reinterpret_cast<u8*>(head) - offsetof(net_bridge_fdb_entry, rcu));
}

/// Under the lock. Readers that are at the entry go on from it.
void unlink(net_bridge* br, net_bridge_fdb_entry** link) noexcept {
  net_bridge_fdb_entry* const entry = *link;
  rcu_assign_pointer(*link, entry->next);
  if (!entry->is_local) --br->fdb_count;
  call_rcu(&entry->rcu, free_entry);
}

/// Under the lock; null without memory.
net_bridge_fdb_entry* link_new(net_bridge* br, net_bridge_port* port, const u8* addr,
                               bool is_local) noexcept {
  auto* const entry =
      static_cast<net_bridge_fdb_entry*>(kzalloc(sizeof(net_bridge_fdb_entry), GFP_ATOMIC));
  if (entry == nullptr) return nullptr;
  entry->dst = port;
  entry->is_local = is_local;
  entry->updated = jiffies;
  memcpy(entry->addr, addr, sizeof entry->addr);
  net_bridge_fdb_entry*& head = br->hash[bucket_of(addr)];
  entry->next = head;
  rcu_assign_pointer(head, entry);
  if (!is_local) ++br->fdb_count;
  return entry;
}

/// Under the lock.
bool has_room(const net_bridge* br, const u8* addr) noexcept {
  if (br->fdb_count >= br->fdb_limit) return false;
  u32 learnt = 0;
  for (const auto* entry = br->hash[bucket_of(addr)]; entry != nullptr; entry = entry->next) {
    if (!entry->is_local) ++learnt;
  }
  return learnt < br_fdb_bucket_limit;
}

/// An entry that stays where it is, for a frame from `port`. Needs no lock: were the entry removed
/// at this moment, the next frame would learn it again.
bool refresh(net_bridge_fdb_entry* entry, const net_bridge_port* port) noexcept {
  if (rcu_dereference(entry->dst) != port) return false;
  write_once(entry->updated, static_cast<u32>(jiffies));
  return true;
}

bool learns(const net_bridge_port* port) noexcept {
  const u8 state = read_once(port->state);
  return state == BR_STATE_LEARNING || state == BR_STATE_FORWARDING;
}

/// Under the lock: the sender may have become known since it was looked for without, and the port
/// may be on its way out, which is seen by its state.
br_fdb_update_result learn_or_move(net_bridge_port* port, const u8* addr) noexcept {
  if (!learns(port)) return {br_fdb_outcome::refused, nullptr};
  net_bridge* const br = port->br;
  net_bridge_fdb_entry* entry = find(br, addr);
  if (entry == nullptr) {
    entry = has_room(br, addr) ? link_new(br, port, addr, false) : nullptr;
    return {entry != nullptr ? br_fdb_outcome::learnt : br_fdb_outcome::refused, entry};
  }
  if (entry->is_local) return {br_fdb_outcome::own, entry};
  if (refresh(entry, port)) return {br_fdb_outcome::refreshed, entry};
  rcu_assign_pointer(entry->dst, port);
  write_once(entry->updated, static_cast<u32>(jiffies));
  return {br_fdb_outcome::moved, entry};
}

/// Removes the entries for which `leaves(entry)` holds.
template <typename Predicate>
u32 remove_if(net_bridge* br, Predicate leaves) noexcept {
  u32 removed = 0;
  spin_lock_bh(&br->hash_lock);
  for (net_bridge_fdb_entry*& head : br->hash) {
    for (net_bridge_fdb_entry** link = &head; *link != nullptr;) {
      if (!leaves(*link)) {
        link = &(*link)->next;
        continue;
      }
      unlink(br, link);
      ++removed;
    }
  }
  spin_unlock_bh(&br->hash_lock);
  return removed;
}

bool judged_to_leave(br_fdb_judge judge, net_bridge_fdb_entry* entry, void* context) {
  return judge == nullptr || judge(entry, context) == br_fdb_fate::remove;
}

}  // namespace

extern "C" {

net_bridge_fdb_entry* br_fdb_find(const net_bridge* br, const u8* addr) noexcept {
  if constexpr (kernel_checked) checked_rcu_held(code_place::here());
  return find(br, addr);
}

int br_fdb_insert_local(net_bridge* br, net_bridge_port* port, const u8* addr) noexcept {
  int result = 0;
  spin_lock_bh(&br->hash_lock);
  if (find(br, addr) != nullptr) {
    result = -EEXIST;
  } else if (link_new(br, port, addr, true) == nullptr) {
    result = -ENOMEM;
  }
  spin_unlock_bh(&br->hash_lock);
  return result;
}

br_fdb_update_result br_fdb_update(net_bridge_port* port, const u8* addr) noexcept {
  if constexpr (kernel_checked) checked_rcu_held(code_place::here());
  if (!learns(port)) return {br_fdb_outcome::refused, nullptr};
  net_bridge* const br = port->br;
  net_bridge_fdb_entry* const known = find(br, addr);
  if (known != nullptr && known->is_local) return {br_fdb_outcome::own, known};
  if (known != nullptr && refresh(known, port)) return {br_fdb_outcome::refreshed, known};

  spin_lock_bh(&br->hash_lock);
  const br_fdb_update_result result = learn_or_move(port, addr);
  spin_unlock_bh(&br->hash_lock);
  return result;
}

net_bridge_fdb_entry* br_fdb_delete(net_bridge* br, const u8* addr) noexcept {
  spin_lock_bh(&br->hash_lock);
  net_bridge_fdb_entry** link = &br->hash[bucket_of(addr)];
  while (*link != nullptr && !has_address(*link, addr))
    link = &(*link)->next;
  net_bridge_fdb_entry* const entry = *link;
  if (entry != nullptr) unlink(br, link);
  spin_unlock_bh(&br->hash_lock);
  return entry;
}

u32 br_fdb_sweep(net_bridge* br, br_fdb_judge judge, void* context) noexcept {
  return remove_if(br, [judge, context](net_bridge_fdb_entry* entry) {
    return judged_to_leave(judge, entry, context);
  });
}

u32 br_fdb_age(net_bridge* br, u32 max_age, br_fdb_judge judge, void* context) noexcept {
  const u32 now = jiffies;
  return remove_if(br, [now, max_age, judge, context](net_bridge_fdb_entry* entry) {
    if (entry->is_local) return false;
    // A frame of this moment may have refreshed the entry later than `now`.
    const u32 fresh_until = read_once(entry->updated) + max_age;
    return time_after_eq(now, fresh_until) && judged_to_leave(judge, entry, context);
  });
}

}  // extern "C"
