// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/table.h"

#include "module/brc/table.h"
#include "module/core/memory.h"

namespace tarvelo {

void release_entry(ipc_entry* entry) {
  if (entry->brc != nullptr) put_bridge_entry(entry->brc);
  free_after_grace_period(entry);
}

ipc_entry* _vok_ipc_lkup(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport, u16 dport,
                         u8 check_brc) {
  return ipv4_table::look_up(ci, {sip, dip, sport, dport, proto}, [check_brc](const ipc_entry& e) {
    return check_brc == 0 || !older_than_bridge_entry(e);
  });
}

int _vok_ipc_count_get(vok_handle* ci) {
  return ipv4_table::size(ci, "_vok_ipc_count_get");
}

int _vok_ipc_delete(vok_handle* ci, u32 sip, u32 dip, u8 proto, u16 sport, u16 dport) {
  return ipv4_table::remove(ci, {sip, dip, sport, dport, proto}, "_vok_ipc_delete");
}

}  // namespace tarvelo
