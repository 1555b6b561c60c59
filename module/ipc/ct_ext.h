// SPDX-License-Identifier: GPL-2.0-only
//
// The record that the module hangs on every tracked connection: see tarvelo/ct_ext.h. The kernel
// asks for it when it makes a connection and gives it back when the connection ends.
#pragma once

#include "kernel/nf_conntrack.h"

namespace tarvelo {

/// The slab cache that the records come from; process context, at load and unload. True on success;
/// a failure is logged.
[[nodiscard]] bool _vok_memory_cache_init();
void memory_cache_destroy();

/// Published operations; any context. 0, or -1: no cache or no memory (both logged).
int _vok_nf_conntrack_ext_alloc(nf_conn* ct);
/// 0, or -1 when the connection has no record.
int _vok_nf_conntrack_ext_free(nf_conn* ct);

}  // namespace tarvelo
