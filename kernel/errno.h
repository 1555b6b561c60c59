// SPDX-License-Identifier: GPL-2.0-only
//
// Error numbers, returned negated. ERESTARTSYS never reaches a user: an interrupted sleep returns
// it inside the kernel.
#pragma once

#include <cerrno>

inline constexpr int ERESTARTSYS = 512;
