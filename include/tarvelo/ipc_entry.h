// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv4 connection entry: one cached direction of an accelerated TCP or UDP connection, keyed by
// the packet's addresses, ports and protocol as they are on arrival, with all that is needed to
// send the packet on.
//
// Guarded by the table's lock (`vok_handle::ipc_lock`); freed after an RCU grace period.
//
// An entry is allocated in one of three sizes (`tarvelo::ipc_entry_size`): the last two fields are
// there only when the entry has a PPPoE side. Never copy or clear an entry by `sizeof`.
#pragma once

#include "tarvelo/fwd.h"

struct brc;

namespace tarvelo::ipc_flag {

inline constexpr std::uint32_t snat = 0x4;
inline constexpr std::uint32_t dnat = 0x8;
inline constexpr std::uint32_t pppoe_out = 0x10;
inline constexpr std::uint32_t pppoe_in = 0x20;
inline constexpr std::uint32_t pppoe_in_out = 0x40;
inline constexpr std::uint32_t pptp_out = 0x80;
inline constexpr std::uint32_t pptp_in = 0x100;
inline constexpr std::uint32_t l2tp_out = 0x200;
inline constexpr std::uint32_t l2tp_in = 0x400;
inline constexpr std::uint32_t tcp_closing = 0x800;  ///< a FIN or RST has passed
/// The connection was destroyed while the fast path was switched off. Such an entry is no longer
/// followed and does not stand in the way of a new one; it goes when the switch is set again.
inline constexpr std::uint32_t orphaned = 0x80000000;

}  // namespace tarvelo::ipc_flag

struct ipc_entry {
  alignas(void*) std::uint8_t reserved[16];  ///< zero while linked; used to defer the free
  ipc_entry* next;                           ///< next entry of the bucket, null at its end
  ::brc* brc;                 ///< bridge cache entry of the next hop, one reference held; or null
  std::uint32_t create_time;  ///< jiffies when the entry was made
  net_device* sendif;         ///< device the packet is transmitted on
  std::uint32_t flags;        ///< `tarvelo::ipc_flag`
  nf_conn* ct;                ///< tracking record; no reference held
  std::uint8_t dmac[6];       ///< written into forwarded frames
  std::uint8_t smac[6];
  std::uint32_t sip;    ///< key, network byte order
  std::uint32_t dip;    ///< key, network byte order
  std::uint16_t sport;  ///< key, network byte order
  std::uint16_t dport;  ///< key, network byte order
  std::uint8_t proto;   ///< key: 6 (TCP) or 17 (UDP)
  std::uint8_t reserved_proto[3];
  std::uint8_t dir;  ///< tracking direction served: 0 original, 1 reply
  std::uint8_t reserved_dir[3];
  std::uint16_t natp;  ///< translated port, network byte order
  /// Private to the module, 0 for everyone else: the longest IP packet that the PPP interface on
  /// the output side takes, in bytes; 0 without such an interface. Kept here because `ppp_dev` is
  /// the input side's interface when both sides are PPP.
  std::uint16_t ppp_mtu;
  std::uint32_t natip;         ///< translated address, network byte order
  void* session;               ///< parameters of the tunnel side (PPTP or L2TP), or null
  net_device* ppp_dev;         ///< PPP interface to account on, or null
  std::uint16_t pppoe_sid;     ///< network byte order; only in entries with a PPPoE side
  std::uint16_t pppoe_sid_in;  ///< network byte order; only when both sides are PPPoE
};

namespace tarvelo {

/// Bytes of an entry by the number of its PPPoE sides.
enum class ipc_entry_size : std::uint32_t {
  no_pppoe = offsetof(ipc_entry, pppoe_sid),
  one_pppoe = offsetof(ipc_entry, pppoe_sid_in),
  two_pppoe = offsetof(ipc_entry, pppoe_sid_in) + sizeof(std::uint16_t),
};

}  // namespace tarvelo

static_assert(tarvelo::binding_layout(offsetof(ipc_entry, next), 16));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, brc), 20));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, create_time), 24));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, sendif), 28));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, flags), 32));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, ct), 36));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, dmac), 40));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, smac), 46));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, sip), 52));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, dip), 56));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, sport), 60));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, dport), 62));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, proto), 64));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, dir), 68));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, natp), 72));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, natip), 76));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, session), 80));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, ppp_dev), 84));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, pppoe_sid), 88));
static_assert(tarvelo::binding_layout(offsetof(ipc_entry, pppoe_sid_in), 90));
static_assert(tarvelo::binding_layout(sizeof(ipc_entry), 92));
