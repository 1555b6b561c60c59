// SPDX-License-Identifier: GPL-2.0-only
//
// The rows of the module's own directory of control files.
#pragma once

#include "tarvelo/proc_entry.h"

namespace tarvelo {

inline constexpr int vok_proc_entry_count = 10;
extern const vok_proc_entry vok_proc_entries[vok_proc_entry_count];

}  // namespace tarvelo
