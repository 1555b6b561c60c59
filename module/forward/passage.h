// SPDX-License-Identifier: GPL-2.0-only
//
// What a connection entry of either table says about how its packets come in and leave. The packet
// path copies it out of the entry, because the two kinds of entry have it at different places and
// their short forms have only part of it. Valid while the table's lock is held.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/nf_conntrack.h"
#include "tarvelo/ipc_entry.h"
#include "tarvelo/ipc_v6_entry.h"

namespace tarvelo {

/// Groups of `ipc_flag`.
namespace ipc_mode {
inline constexpr u32 tunnel_in = ipc_flag::pptp_in | ipc_flag::l2tp_in;
inline constexpr u32 tunnel_out = ipc_flag::pptp_out | ipc_flag::l2tp_out;
inline constexpr u32 stripped = ipc_flag::pppoe_in | tunnel_in;
inline constexpr u32 built = ipc_flag::pppoe_out | tunnel_out;
inline constexpr u32 rewrapped = stripped | built;
inline constexpr u32 pppoe_received = ipc_flag::pppoe_in | ipc_flag::pppoe_in_out;
inline constexpr u32 expects_pppoe = pppoe_received | tunnel_in;
inline constexpr u32 any_pppoe = pppoe_received | ipc_flag::pppoe_out;
inline constexpr u32 any = rewrapped | ipc_flag::pppoe_in_out;
static_assert(any == 0x7F0 && rewrapped == 0x7B0 && stripped == 0x520 && built == 0x290);
}  // namespace ipc_mode

struct passage {
  u32 flags;  ///< `ipc_flag`
  u8 dir;     ///< tracking direction, and with it the VLAN slot
  u16 pppoe_sid;
  u16 pppoe_sid_in;
  u16 ppp_mtu;
  net_device* sendif;
  net_device* ppp_dev;
  vok_ct_ext* ext;  ///< the connection's record
  void* session;    ///< parameters of the tunnel side, or null
  const u8* dmac;
  const u8* smac;

  [[nodiscard]] bool has(u32 any_of) const { return (flags & any_of) != 0; }
};

/// `Entry` is an entry of one of the two tables; its connection has an extension record. The
/// session ids are read once, behind their tests: the short forms of an entry end before them, and
/// a plain load could be moved ahead.
template <typename Entry>
[[nodiscard]] inline passage passage_of(const Entry& entry) {
  passage way = {entry.flags,   entry.dir,         0,       0,          entry.ppp_mtu, entry.sendif,
                 entry.ppp_dev, entry.ct->vok_ext, nullptr, entry.dmac, entry.smac};
  if constexpr (requires { entry.session; }) way.session = entry.session;
  if (way.has(ipc_mode::any_pppoe)) way.pppoe_sid = read_once(entry.pppoe_sid);
  if (way.has(ipc_flag::pppoe_in_out)) way.pppoe_sid_in = read_once(entry.pppoe_sid_in);
  return way;
}

}  // namespace tarvelo
