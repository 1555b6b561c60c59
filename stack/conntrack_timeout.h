// SPDX-License-Identifier: GPL-2.0-only
//
// How long a connection lasts without a packet, by its protocol and what has been seen of it. The
// fast path moves the timers of the connections that it carries by the same established time-outs.
#pragma once

#include "kernel/nf_conntrack.h"

namespace tarvelo::stack {

/// In jiffies, from the last packet on. Stack's lock.
[[nodiscard]] u32 connection_timeout(const nf_conn* ct) noexcept;

}  // namespace tarvelo::stack
