// SPDX-License-Identifier: GPL-2.0-only
//
// The control files of the IPv6 side: number of connections, listing, packet counters.
#pragma once

#include "kernel/fs.h"

namespace tarvelo {

extern const file_operations _vko_ipc_v6_count_file_ops;
extern const file_operations _vko_ipc_v6_file_ops;
extern const file_operations _vko_statistics_forward_ipv6_packet_num_file_ops;

}  // namespace tarvelo
