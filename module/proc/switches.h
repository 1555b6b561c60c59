// SPDX-License-Identifier: GPL-2.0-only
//
// The control files of one value on the IPv4 side: the fast-path switch, the slow-transmit switch,
// the packet counters, the version and the number of connections.
//
// The fast-path switch lives in the handle: while none is published, reading it prints nothing and
// writing it answers -ENODEV.
#pragma once

#include "kernel/fs.h"

namespace tarvelo {

extern const file_operations _vok_enable_file_ops;
extern const file_operations _vok_slow_xmit_enable_file_ops;
extern const file_operations _vko_statistics_info_file_ops;
extern const file_operations _vko_version_file_ops;
extern const file_operations _vko_ipc_count_file_ops;

}  // namespace tarvelo
