// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv6 connection table: 8192 buckets of `ipc_v6_entry`, guarded by `vok_handle::ipc_v6_lock`.
#pragma once

#include "module/core/handle.h"
#include "tarvelo/ipc_v6_entry.h"

namespace tarvelo {

/// Number of entries, or -2 (logged) without a handle or table; any context.
[[nodiscard]] int _vok_ipc_v6_count_get(vok_handle* ci);

/// Empties the table; the entries are freed after a grace period.
void release_all_v6_connections(vok_handle* ci);

}  // namespace tarvelo
