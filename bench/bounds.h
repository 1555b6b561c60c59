// SPDX-License-Identifier: GPL-2.0-only
//
// What many connections cost: memory, time, and a packet of one connection when the keys of the
// others collide with its own.
#pragma once

namespace tarvelo::bench {

/// Prints the figures. One run takes some seconds.
void print_bounds();

}  // namespace tarvelo::bench
