// SPDX-License-Identifier: GPL-2.0-only
#include "module/core/refusals.h"

namespace tarvelo {

void session_delete_ipc(vok_handle*, l2tp_session*) {}

void __ipv6_conntrack_ipc_add(vok_handle*, sk_buff*) {}

void _br_brc_notify(vok_handle*, unsigned int, int, net_bridge_fdb_entry*) {}

int _vok_pptp_compress_packet(const std::uint8_t*) {
  return 0;
}

int _vok_pptp_control_packet(const std::uint8_t*) {
  return 0;
}

}  // namespace tarvelo
