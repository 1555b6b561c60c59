// SPDX-License-Identifier: GPL-2.0-only
//
// The packet counters and the slow-transmit switch.
//
// Counters are 32 bits wide and wrap. They are moved on the packet path of every processor without
// a lock and without an atomic instruction: a count may be lost when two processors move the same
// counter at once, which is the price of not sharing a locked cache line for a statistic.
#pragma once

#include "kernel/types.h"

namespace tarvelo {

extern u32 ethernet_packet;     ///< Ethernet frames taken up for classification
extern u32 bridge_packet;       ///< frames handed to transmit on the bridged path
extern u32 bridge_pool_packet;  ///< settable only
extern u32 ip_packet;           ///< packets handed to transmit on the IPv4 routed path
extern u32 ip_pool_packet;      ///< settable only
extern u32 ethernet_v6_packet;  ///< IPv6 packets taken up for classification
extern u32 ip_v6_packet;        ///< packets handed to transmit on the IPv6 routed path

/// 0: off. While on, every buffer that the fast path sends carries `fast_flag::slow_xmit`.
extern s32 g_vok_slow_xmit_enable;

inline void count_one(u32& counter) {
  write_once(counter, read_once(counter) + 1);
}

/// Counters and switch as they are after loading.
void reset_counters();

}  // namespace tarvelo
