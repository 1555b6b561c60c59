// SPDX-License-Identifier: GPL-2.0-only
//
// The channels of PPP interfaces: what carries their packets, as an object for each of PPPoE, PPTP
// and L2TP.
//
// A channel object begins with what all kinds share; its parameter block lies at a fixed place
// behind, because the fast path finds the block from the object's address alone and keeps that
// address in its entries. A channel is made and filled in, attached to its PPP interface, detached
// and freed, all in process context. While it is attached its addresses, ids and devices do not
// change.
//
// A channel found through its interface is valid within one RCU read side. The fast path's entries
// outlive that: before a channel is detached they are swept from the caches by device (and by
// session for L2TP), and the memory goes a grace period later.
#pragma once

#include "kernel/l2tp.h"
#include "kernel/netdevice.h"
#include "kernel/ppp.h"
#include "kernel/pptp.h"
#include "kernel/skbuff.h"
#include "tarvelo/fwd.h"

/// From the start of a channel object to its parameter block, in bytes, for all kinds.
inline constexpr std::size_t ppp_channel_params_offset = 504;

inline constexpr u16 pppoe_no_session = 0xFFFF;  ///< as a session id, in either byte order

/// What all kinds begin with.
struct ppp_channel {
  ppp_channel_type type;
  net_device* ppp_dev;  ///< the interface, while attached
  callback_head rcu;
};

inline constexpr std::size_t ppp_channel_gap = ppp_channel_params_offset - sizeof(ppp_channel);

struct pppoe_params {
  net_device* dev;  ///< the Ethernet or VLAN device the session runs on; one reference held
  u32 reserved_4;
  u16 sid;                      ///< network byte order
  u8 remote[wire::mac_length];  ///< the peer
};

struct pppoe_channel {
  ppp_channel ppp;
  u8 reserved[ppp_channel_gap];
  pppoe_params params;
};

struct pptp_channel {
  ppp_channel ppp;
  u8 reserved[ppp_channel_gap];
  pptp_params params;
};

struct l2tp_channel {
  ppp_channel ppp;
  u8 reserved[ppp_channel_gap];
  l2tp_params params;
};

static_assert(offsetof(pppoe_channel, params) == ppp_channel_params_offset);
static_assert(offsetof(pptp_channel, params) == ppp_channel_params_offset);
static_assert(offsetof(l2tp_channel, params) == ppp_channel_params_offset);
static_assert(tarvelo::binding_layout(offsetof(pppoe_channel, params.dev), 504));
static_assert(tarvelo::binding_layout(offsetof(pppoe_channel, params.remote), 514));

/// Where a PPPoE session runs.
struct pppoe_config {
  net_device* dev;
  u16 sid;  ///< network byte order
  u8 remote[wire::mac_length];
};

extern "C" {
/// Channels that are not attached yet; null without memory. The caller fills in the parameters that
/// are still 0. `pppoe` takes a reference on its device, `l2tp` one on its session, of which the
/// caller holds another, and has the default TTL; the numbers of `pptp` are those of a fresh call.
[[nodiscard]] pppoe_channel* pppoe_channel_alloc(const pppoe_config* config) noexcept;
[[nodiscard]] pptp_channel* pptp_channel_alloc() noexcept;
[[nodiscard]] l2tp_channel* l2tp_channel_alloc(l2tp_session* session) noexcept;

/// Makes a channel that of a PPP interface, which from then on answers ppp_get_conn_pkt_info(). 0,
/// -EEXIST when the interface has one, or -ENOMEM: the channel stays the caller's then.
[[nodiscard]] int ppp_channel_attach(net_device* ppp_dev, ppp_channel* channel) noexcept;
/// Takes a channel from its interface, if it is attached, gives up what it holds, and frees it
/// after a grace period. Null is allowed. Before the interface is unregistered.
void ppp_channel_free(ppp_channel* channel) noexcept;

/// Accounts a buffer, as long as it is now, that was received or sent by a PPP interface whose
/// driver has not seen it: on the counters of the calling processor. Any context.
void ppp_rxstats_upd(net_device* ppp_dev, const sk_buff* skb) noexcept;
void ppp_txstats_upd(net_device* ppp_dev, const sk_buff* skb) noexcept;
}

/// The parameter block of a channel object, whatever its kind.
[[nodiscard]] inline void* ppp_channel_params(void* chan) noexcept {
  return static_cast<u8*>(chan) + ppp_channel_params_offset;
}
