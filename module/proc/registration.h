// SPDX-License-Identifier: GPL-2.0-only
//
// Directories of control files, made from and removed by a table of rows. The module makes its own
// directory this way at the top of the tree; other kernel code hangs its own below it through the
// handle. Process context; the tree serialises its own changes.
#pragma once

#include "kernel/proc_fs.h"
#include "tarvelo/handle.h"

namespace tarvelo {

/// The module's directory, below which further ones are made; null until it is made itself.
extern proc_dir_entry* _vok_proc_dir_entry;

/// Published operations, see vok_handle. Rows that cannot be made are logged and left out. Null
/// without a name or when the directory cannot be made (both logged).
[[nodiscard]] proc_dir_entry* _vok_register_proc_filesystem_entry(vok_handle* ci,
                                                                  const vok_proc_entry* entries,
                                                                  int count, const char* name);
void _vok_unregister_proc_filesystem_entry(vok_handle* ci, const vok_proc_entry* entries, int count,
                                           const char* name, proc_dir_entry* dir);

}  // namespace tarvelo
