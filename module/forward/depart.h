// SPDX-License-Identifier: GPL-2.0-only
//
// The last step of the routed path of either family that the table's lock covers: the frame is
// complete but for what its device makes of it. Softirq context.
#pragma once

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"
#include "module/forward/passage.h"
#include "tarvelo/handle.h"

namespace tarvelo {

/// Gives the frame its priority and the form in which its device takes it; `fate::drop` when that
/// device is down. `ct` is the connection that the buffer carries.
fate depart(vok_handle* ci, sk_buff* skb, const frame& f, const passage& way, nf_conn* ct);

}  // namespace tarvelo
