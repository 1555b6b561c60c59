// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipv6/table.h"

#include "module/core/memory.h"

namespace tarvelo {

void release_entry(ipc_v6_entry* entry) {
  free_after_grace_period(entry);
}

ipc_v6_entry* _vok_ipc_v6_lkup(vok_handle* ci, wire::in6_addr sip, wire::in6_addr dip, u8 proto,
                               u16 sport, u16 dport) {
  return ipv6_table::look_up(ci, {sip, dip, sport, dport, proto},
                             [](const ipc_v6_entry&) { return true; });
}

int _vok_ipc_v6_delete(vok_handle* ci, wire::in6_addr sip, wire::in6_addr dip, u8 proto, u16 sport,
                       u16 dport) {
  return ipv6_table::remove(ci, {sip, dip, sport, dport, proto}, "_vok_ipc_v6_delete");
}

int _vok_ipc_v6_count_get(vok_handle* ci) {
  return ipv6_table::size(ci, "_vok_ipc_v6_count_get");
}

}  // namespace tarvelo
