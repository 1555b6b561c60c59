// SPDX-License-Identifier: GPL-2.0-only
//
// `tarvelo run`: the router on real interfaces, until it is told to stop.
//
// Up: ports, router, module, mount of the control files, then the threads: a worker for each
// processor, at most one for each port, and the clock. Down the same way back: the mount goes
// before the module, which cannot unload while one of its files is open, and the ports go last,
// because the router may send to its end. Whatever fails on the way up takes down what is there.
#pragma once

#include "app/command_line.h"

namespace tarvelo::app {

/// Returns the exit status; throws input_error.
int run(const run_options& options);

}  // namespace tarvelo::app
