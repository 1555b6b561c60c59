// SPDX-License-Identifier: GPL-2.0-only
//
// `tarvelo replay`: captures through the router, the same input giving the same bytes, always.
//
// The virtual clock stands at 0 when the first frame comes in; everything the replay writes is
// stamped with it. Captures are looked at from end to end before anything is written, so a damaged
// one leaves nothing behind.
#pragma once

#include "app/command_line.h"

namespace tarvelo::app {

/// Returns the exit status; throws input_error.
int replay(const replay_options& options);

}  // namespace tarvelo::app
