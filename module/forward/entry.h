// SPDX-License-Identifier: GPL-2.0-only
//
// The way into the fast path: one call for every frame that the kernel offers.
//
// A frame goes through the same steps as long as nothing speaks against it: classified by its link
// layer, bridged when both MAC addresses are cached, or else routed when its connection is cached.
// Either it is consumed, sent or freed, or it goes back with its data as it was and nothing held.
#pragma once

#include "kernel/skbuff.h"
#include "module/forward/fate.h"
#include "tarvelo/handle.h"

namespace tarvelo {

/// Forwards a frame whose data is at the Ethernet header (at the IP header for a point-to-point
/// device). The buffer is the caller's again exactly when is_handed_back() holds for the result;
/// softirq context.
fate forward_frame(vok_handle* ci, sk_buff* skb);

/// Published operations, see vok_handle.
int _vok_forward(vok_handle* ci, sk_buff* skb, unsigned long arg);
int _vok_forward_eth_protocol(vok_handle* ci, sk_buff* skb, unsigned long arg);

}  // namespace tarvelo
