// SPDX-License-Identifier: GPL-2.0-only
//
// What the module loader knows of the module: the two routines it calls, in process context and one
// at a time, and the record that open listings pin.
#pragma once

#include "kernel/fs.h"

extern "C" {
/// 0, or -1 with nothing left behind.
[[gnu::visibility("default")]] int init_module();
[[gnu::visibility("default")]] void cleanup_module();
[[gnu::visibility("default")]] extern struct module __this_module;
}
