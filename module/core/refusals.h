// SPDX-License-Identifier: GPL-2.0-only
//
// Operations whose subject this module does not accelerate yet: tunnels, IPv6 connections, and the
// cache of bridged hosts as the bridge itself reports them. The kernel calls through the handle
// without looking whether a slot is filled, so each of them is there and gives the answer that
// means "not mine": nothing added, nothing removed, nothing recognised.
#pragma once

#include "tarvelo/handle.h"

namespace tarvelo {

void session_delete_ipc(vok_handle* ci, l2tp_session* session);
void __ipv6_conntrack_ipc_add(vok_handle* ci, sk_buff* skb);
void _br_brc_notify(vok_handle* ci, unsigned int group, int type, net_bridge_fdb_entry* fdb);
int _vok_pptp_compress_packet(const std::uint8_t* p);
int _vok_pptp_control_packet(const std::uint8_t* p);

}  // namespace tarvelo
