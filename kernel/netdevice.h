// SPDX-License-Identifier: GPL-2.0-only
//
// Network devices: ports, and the VLAN devices, bridges and PPP interfaces stacked on them.
//
// A device is made by alloc_netdev(), appears under its name and index with register_netdevice(),
// and is freed an RCU grace period after unregister_netdevice(). Registration and the up flag
// change in process context, the flag while others look: read `flags` with read_once(). The other
// fields do not change while it is registered.
#pragma once

#include "kernel/atomic.h"
#include "kernel/rcupdate.h"
#include "kernel/types.h"
#include "kernel/wire/ethernet.h"

struct net_device;
struct sk_buff;

inline constexpr std::size_t IFNAMSIZ = 16;

inline constexpr u32 IFF_UP = 0x1;
inline constexpr u32 IFF_BROADCAST = 0x2;
inline constexpr u32 IFF_LOOPBACK = 0x8;
inline constexpr u32 IFF_POINTOPOINT = 0x10;

inline constexpr u32 IFF_802_1Q_VLAN = 0x1;  ///< in `priv_flags`
inline constexpr u32 IFF_EBRIDGE = 0x2;      ///< in `priv_flags`

inline constexpr u16 ARPHRD_ETHER = 1;
inline constexpr u16 ARPHRD_PPP = 512;
inline constexpr u16 ARPHRD_NONE = 0xFFFE;

inline constexpr int NETDEV_TX_OK = 0;

struct net_device_ops {
  /// Sends a buffer whose data is at the link-layer header (at the IP header on a device without
  /// one). Softirq or process context, no lock of the module held. Takes the buffer when it returns
  /// NETDEV_TX_OK; otherwise the buffer stays the caller's. Never null.
  int (*ndo_start_xmit)(sk_buff* skb, net_device* dev);
};

/// Frames and bytes of one device, summed over the processors; shown, never decided on.
struct rtnl_link_stats64 {
  u64 rx_packets;
  u64 tx_packets;
  u64 rx_bytes;
  u64 tx_bytes;
  u64 rx_dropped;
  u64 tx_dropped;
};

struct net_device {
  char name[IFNAMSIZ];
  int ifindex;  ///< from 1, in the order of registration
  u32 flags;
  u32 priv_flags;
  u32 mtu;  ///< bytes above the link-layer header
  u16 type;
  u8 dev_addr[wire::mac_length];
  const net_device_ops* netdev_ops;
  void* priv;       ///< the driver's
  atomic_t refcnt;  ///< one of whoever made it, given up by unregistering; one of each holder
  callback_head rcu;
};

extern "C" {
/// A device that is down and not registered; null without memory. `name` is cut to 15 characters.
[[nodiscard]] net_device* alloc_netdev(const char* name, u16 type) noexcept;
/// Frees a device that was never registered.
void free_netdev(net_device* dev) noexcept;
/// 0, or -EEXIST when the name is taken. Gives the device its ifindex.
[[nodiscard]] int register_netdevice(net_device* dev) noexcept;
/// Takes the device away and frees it after a grace period and when the last reference is gone.
void unregister_netdevice(net_device* dev) noexcept;
/// Sets and clears IFF_UP.
void dev_open(net_device* dev) noexcept;
void dev_close(net_device* dev) noexcept;
/// Null when there is none; the result is valid within one RCU read side.
[[nodiscard]] net_device* dev_get_by_name_rcu(const char* name) noexcept;
[[nodiscard]] net_device* dev_get_by_index_rcu(int ifindex) noexcept;

/// Hands a buffer to its device's driver and counts it there. Takes the buffer in any case; a
/// device that is down or refuses frees it. Returns NETDEV_TX_OK or a negative error.
int dev_queue_xmit(sk_buff* skb) noexcept;

/// The same for a device that is stacked on another: a buffer that is not taken stays the caller's,
/// whose device counts it as dropped.
[[nodiscard]] int dev_hard_start_xmit(sk_buff* skb) noexcept;

/// Counters of the calling processor. `dev_stats` sums them.
void dev_count_rx(net_device* dev, u32 bytes) noexcept;
void dev_count_tx(net_device* dev, u32 bytes) noexcept;
void dev_count_rx_dropped(net_device* dev) noexcept;
[[nodiscard]] rtnl_link_stats64 dev_stats(const net_device* dev) noexcept;

/// Frees a device whose last reference is gone; see dev_put().
void hosted_netdev_free(net_device* dev) noexcept;
}

inline void dev_hold(net_device* dev) noexcept {
  atomic_inc(&dev->refcnt);
}
/// The last drop frees the device, which is unregistered by then.
inline void dev_put(net_device* dev) noexcept {
  if (atomic_dec_and_test(&dev->refcnt)) hosted_netdev_free(dev);
}
