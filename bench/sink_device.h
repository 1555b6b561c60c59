// SPDX-License-Identifier: GPL-2.0-only
//
// Devices that free what is sent on them, counted.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"

namespace tarvelo::bench {

/// Buffers freed by sink devices since the program began. One thread.
inline u64 frames_sunk = 0;

inline int sink_start_xmit(sk_buff* skb, net_device*) {
  ++frames_sunk;
  kfree_skb(skb);
  return NETDEV_TX_OK;
}

inline constexpr net_device_ops sink_ops{.ndo_start_xmit = &sink_start_xmit};

}  // namespace tarvelo::bench
