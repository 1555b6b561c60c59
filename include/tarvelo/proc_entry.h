// SPDX-License-Identifier: GPL-2.0-only
//
// One row of a table of control files, as `vok_handle::_vok_register_proc_filesystem_entry` takes
// it. Rows follow each other without gaps.
#pragma once

#include "tarvelo/fwd.h"

struct vok_proc_entry {
  const char* name;    ///< NUL-terminated
  std::uint16_t mode;  ///< permission bits
  std::uint16_t reserved;
  const file_operations* fops;  ///< null: the row is passed over
};

static_assert(tarvelo::binding_layout(offsetof(vok_proc_entry, name), 0));
static_assert(tarvelo::binding_layout(offsetof(vok_proc_entry, mode), 4));
static_assert(tarvelo::binding_layout(offsetof(vok_proc_entry, fops), 8));
static_assert(tarvelo::binding_layout(sizeof(vok_proc_entry), 12));
