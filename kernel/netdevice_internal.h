// SPDX-License-Identifier: GPL-2.0-only
//
// What a device has besides its public record. Only kernel/*.cpp includes this.
#pragma once

#include "kernel/context.h"
#include "kernel/if_vlan.h"
#include "kernel/netdevice.h"
#include "kernel/ppp.h"

namespace hosted {

/// What processor() returns, without the call.
extern thread_local constinit unsigned own_processor;

/// One processor's counters, on a cache line of their own. Written by that processor only.
struct alignas(64) device_counters {
  u64 rx_packets;
  u64 tx_packets;
  u64 rx_bytes;
  u64 tx_bytes;
  u64 rx_dropped;
  u64 tx_dropped;
};

struct device {
  net_device dev;          ///< first member
  device* next;            ///< registered devices, in the order of registration; RCU
  net_device* real_dev;    ///< of a VLAN device: the device below, held
  ppp_conn_info* channel;  ///< of a PPP interface, RCU; null without one
  u16 vlan_id;
  u16 vlan_flags;
  bool registered;
  device_counters counters[max_processors];
};

[[nodiscard]] inline device* device_of(net_device* dev) noexcept {
  return reinterpret_cast<device*>(dev);
}
[[nodiscard]] inline const device* device_of(const net_device* dev) noexcept {
  return reinterpret_cast<const device*>(dev);
}

/// Hands a buffer to its device's driver and counts it when the driver takes it. 0, -ENETDOWN when
/// the device is down or has no driver, or the driver's answer; the buffer stays the caller's
/// unless 0.
[[nodiscard]] int start_xmit(sk_buff* skb) noexcept;

}  // namespace hosted
