// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/table.h"

#include "kernel/printk.h"
#include "module/brc/table.h"
#include "module/core/memory.h"

namespace tarvelo {

flow_key key_of(const ipc_entry& entry) {
  return {entry.sip, entry.dip, entry.sport, entry.dport, entry.proto};
}

bool older_than_bridge_entry(const ipc_entry& entry) {
  return entry.brc != nullptr &&
         static_cast<s32>(entry.create_time - read_once(entry.brc->add_time)) < 0;
}

void insert_flow(vok_handle* ci, ipc_entry* entry) {
  link_first(&ci->ipc[ipc_bucket(key_of(*entry))], entry);
  write_once(ci->ipc_count, ci->ipc_count + 1);
}

ipc_entry* take_flow(vok_handle* ci, ipc_entry** link) {
  write_once(ci->ipc_count, ci->ipc_count - 1);
  return unlink(link);
}

void release_entry(ipc_entry* entry) {
  if (entry->brc != nullptr) put_bridge_entry(entry->brc);
  free_after_grace_period(entry);
}

ipc_entry* _vok_ipc_lkup(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport, u16 dport,
                         u8 check_brc) {
  if (ci == nullptr || ci->ipc == nullptr) return nullptr;
  spin_lock_bh(ci->ipc_lock);
  ipc_entry** link = find_flow(ci, {sip, dip, sport, dport, proto});
  ipc_entry* entry = link != nullptr ? *link : nullptr;
  if (entry != nullptr && check_brc != 0 && older_than_bridge_entry(*entry)) entry = nullptr;
  spin_unlock_bh(ci->ipc_lock);
  return entry;
}

int _vok_ipc_count_get(vok_handle* ci) {
  if (ci == nullptr || ci->ipc == nullptr) {
    printk("%s: Invalid input (ci %p)", "_vok_ipc_count_get", static_cast<void*>(ci));
    return -2;
  }
  return static_cast<int>(read_once(ci->ipc_count));
}

int _vok_ipc_delete(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport, u16 dport) {
  if (ci == nullptr || ci->ipc == nullptr) {
    printk("%s: Invalid input (ci %p ipc %p)", "_vok_ipc_delete", static_cast<void*>(ci),
           static_cast<void*>(nullptr));
    return -1;
  }
  spin_lock_bh(ci->ipc_lock);
  ipc_entry** link = find_flow(ci, {sip, dip, sport, dport, proto});
  ipc_entry* removed = link != nullptr ? take_flow(ci, link) : nullptr;
  spin_unlock_bh(ci->ipc_lock);
  if (removed == nullptr) return -1;
  release_entry(removed);
  return 0;
}

void release_all_connections(vok_handle* ci) {
  remove_matching(ci, [](const ipc_entry&) { return true; });
}

}  // namespace tarvelo
