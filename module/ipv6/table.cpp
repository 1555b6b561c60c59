// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipv6/table.h"

#include "kernel/printk.h"
#include "kernel/spinlock.h"
#include "module/core/chain.h"
#include "module/core/memory.h"

namespace tarvelo {

int _vok_ipc_v6_count_get(vok_handle* ci) {
  if (ci == nullptr || ci->ipc_v6 == nullptr) {
    printk("%s: Invalid input (ci %p)", "_vok_ipc_v6_count_get", static_cast<void*>(ci));
    return -2;
  }
  return static_cast<int>(read_once(ci->ipc_v6_count));
}

void release_all_v6_connections(vok_handle* ci) {
  if (ci->ipc_v6 == nullptr) return;
  spin_lock_bh(ci->ipc_v6_lock);
  const auto removed =
      unlink_matching(ci->ipc_v6, ipc_v6_buckets, [](const ipc_v6_entry&) { return true; });
  write_once(ci->ipc_v6_count, ci->ipc_v6_count - removed.count);
  spin_unlock_bh(ci->ipc_v6_lock);
  release_each(removed, [](ipc_v6_entry* entry) { free_after_grace_period(entry); });
}

}  // namespace tarvelo
