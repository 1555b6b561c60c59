// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv6 connection entry: one cached direction of an accelerated IPv6 TCP or UDP connection.
// IPv6 is forwarded without translation, so the entry carries only its key and the way out.
//
// Guarded by the table's lock (`vok_handle::ipc_v6_lock`); freed after an RCU grace period.
//
// An entry is allocated in one of three sizes (`tarvelo::ipc_v6_entry_size`): the last two fields
// are there only when the entry has a PPPoE side. Never copy or clear an entry by `sizeof`.
#pragma once

#include "tarvelo/fwd.h"

struct ipc_v6_entry {
  alignas(void*) std::uint8_t reserved[28];  ///< zero while linked; used to defer the free
  ipc_v6_entry* next;                        ///< next entry of the bucket, null at its end
  net_device* sendif;                        ///< device the packet is transmitted on
  std::uint32_t flags;  ///< the PPPoE, `tcp_closing` and `orphaned` bits of `tarvelo::ipc_flag`
  nf_conn* ct;          ///< tracking record; no reference held
  std::uint8_t dmac[6];
  std::uint8_t smac[6];
  std::uint8_t sip[16];        ///< key
  std::uint8_t dip[16];        ///< key
  std::uint16_t sport;         ///< key, network byte order
  std::uint16_t dport;         ///< key, network byte order
  std::uint8_t proto;          ///< key: 6 (TCP) or 17 (UDP)
  std::uint8_t dir;            ///< 0 original, 1 reply
  std::uint16_t ppp_mtu;       ///< private to the module, as in `ipc_entry`
  net_device* ppp_dev;         ///< PPP interface to account on, or null
  std::uint16_t pppoe_sid;     ///< network byte order; only in entries with a PPPoE side
  std::uint16_t pppoe_sid_in;  ///< network byte order; only when both sides are PPPoE
};

namespace tarvelo {

/// Bytes of an entry by the number of its PPPoE sides.
enum class ipc_v6_entry_size : std::uint32_t {
  no_pppoe = offsetof(ipc_v6_entry, pppoe_sid),
  one_pppoe = offsetof(ipc_v6_entry, pppoe_sid_in),
  two_pppoe = offsetof(ipc_v6_entry, pppoe_sid_in) + sizeof(std::uint16_t),
};

}  // namespace tarvelo

static_assert(tarvelo::binding_layout(offsetof(ipc_v6_entry, pppoe_sid), 100));
static_assert(tarvelo::binding_layout(sizeof(ipc_v6_entry), 104));
