// SPDX-License-Identifier: GPL-2.0-only
//
// `tarvelo run`: the router on real interfaces, until it is told to stop.
//
// Up: first what takes privileges, while there is one thread: the ports, the mount of the control
// files, the module's file. Then the privileges are given up, and router, module and threads start
// without any: a worker for each processor, at most one for each port, the control files and the
// clock. Down: the control files go before the module, which cannot unload while one of them is
// open, and the ports go last, because the router may send to its end. Whatever fails on the way up
// takes down what is there.
#pragma once

#include "app/command_line.h"

namespace tarvelo::app {

/// Returns the exit status; throws input_error.
int run(const run_options& options);

}  // namespace tarvelo::app
