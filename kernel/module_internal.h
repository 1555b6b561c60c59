// SPDX-License-Identifier: GPL-2.0-only
//
// Pinning of modules by open files. Only kernel/*.cpp includes this.
#pragma once

#include "kernel/fs.h"

namespace hosted {

/// Pins the module; null, code that is not of a module, always succeeds. False when it is going.
[[nodiscard]] bool try_module_get(module* owner) noexcept;
void module_put(module* owner) noexcept;

}  // namespace hosted
