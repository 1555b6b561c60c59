// SPDX-License-Identifier: GPL-2.0-only
//
// The bridge cache follows the bridges' forwarding databases: a host enters when a bridge first
// reports it on a forwarding port, changes when it is reported again, and leaves when the bridge
// reports that it has forgotten it.
#pragma once

#include "kernel/if_bridge.h"
#include "tarvelo/handle.h"

namespace tarvelo {

/// Published operation, see vok_handle; any context within an RCU read side. Reports about the
/// bridge's own addresses, which come as a matter of routine, are refused and logged.
void _br_brc_notify(vok_handle* ci, unsigned int group, int type, net_bridge_fdb_entry* fdb);

}  // namespace tarvelo
