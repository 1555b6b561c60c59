// SPDX-License-Identifier: GPL-2.0-only
//
// The listings of the IPv4 connections and of the bridge cache. Without a published handle the
// connection listing is its header with the total -2, the bridge listing is empty.
#pragma once

#include "kernel/fs.h"

namespace tarvelo {

extern const file_operations _vok_ipc_file_ops;
extern const file_operations _vok_brc_file_ops;

}  // namespace tarvelo
