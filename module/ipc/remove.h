// SPDX-License-Identifier: GPL-2.0-only
//
// Taking entries out of both connection tables when what they describe goes away: the connection,
// or a device.
#pragma once

#include "kernel/nf_conntrack.h"
#include "module/core/handle.h"

namespace tarvelo {

/// Published operations, see vok_handle. While the fast path is switched off, a destroyed
/// connection's entries are not removed but cut off from it (orphaned).
int _ip_conntrack_ipct_delete(vok_handle* ci, nf_conn* ct);
int _vok_ipc_delete_by_dev(vok_handle* ci, net_device* dev);
void session_delete_ipc(vok_handle* ci, l2tp_session* session);

/// Sets the fast-path switch; not 0: also removes the orphans. Any context, no lock held.
void switch_fast_path(vok_handle* ci, u8 enable);

}  // namespace tarvelo
