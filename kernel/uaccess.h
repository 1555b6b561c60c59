// SPDX-License-Identifier: GPL-2.0-only
//
// Copies between the kernel and the user of a file.
#pragma once

#include "kernel/types.h"

extern "C" {
/// Returns the number of bytes that could not be copied: 0 on success.
[[nodiscard]] unsigned long copy_from_user(void* to, const void* from, unsigned long n) noexcept;
[[nodiscard]] unsigned long copy_to_user(void* to, const void* from, unsigned long n) noexcept;
}
