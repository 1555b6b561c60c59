// SPDX-License-Identifier: GPL-2.0-only
//
// What the kernel tells about a PPP interface's channel. Whoever makes the interface attaches the
// record of its channel; look-ups are made in any context.
#pragma once

#include "kernel/netdevice.h"

/// Kind of a PPP interface's channel.
enum class ppp_channel_type : u8 {
  pppoe = 0,
  l2tp = 1,
  pptp = 2,
  none = 0x11,
};

struct ppp_conn_info {
  void* chan;                ///< the channel's object
  u8 type;                   ///< ppp_channel_type; preset to `none` by the caller
  u8 mac[wire::mac_length];  ///< PPPoE: the peer
  u8 reserved;
  u16 sid;  ///< PPPoE: session id, network byte order; 0xFFFF none
  u16 reserved_14;
};

extern "C" {
/// Fills in the record of a PPP interface. 0, or -ENODEV when the device has no channel.
[[nodiscard]] int ppp_get_conn_pkt_info(net_device* dev, ppp_conn_info* info) noexcept;

/// Gives a PPP interface its channel record, which is copied, or replaces it. 0 or -ENOMEM. Taken
/// away again before the device is unregistered; process context.
[[nodiscard]] int ppp_attach_channel(net_device* dev, const ppp_conn_info* info) noexcept;
void ppp_detach_channel(net_device* dev) noexcept;
}
