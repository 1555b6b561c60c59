// SPDX-License-Identifier: GPL-2.0-only
//
// What the module takes in memory, measured on this machine's heap and worked out for 32 bits.
#pragma once

namespace tarvelo::bench {

/// Prints the figures.
void print_memory();

}  // namespace tarvelo::bench
