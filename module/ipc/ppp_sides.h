// SPDX-License-Identifier: GPL-2.0-only
//
// What PPP encapsulation a connection comes in and leaves by, as both adds find it out, and how its
// PPPoE sides are recorded: alike for both families.
//
// A side is a channel type, or `none`; the two together make the code by which the adds decide: the
// input's type in the high byte, the output's in the low byte.
#pragma once

#include "kernel/ppp_channel.h"
#include "module/forward/mac.h"
#include "tarvelo/ipc_entry.h"

namespace tarvelo {

namespace ppp_code {
inline constexpr u16 pppoe_to_pppoe = 0x0000;
inline constexpr u16 pppoe_to_l2tp = 0x0001;
inline constexpr u16 pppoe_to_pptp = 0x0002;
inline constexpr u16 pppoe_to_plain = 0x0011;
inline constexpr u16 l2tp_to_pppoe = 0x0100;
inline constexpr u16 l2tp_to_plain = 0x0111;
inline constexpr u16 pptp_to_pppoe = 0x0200;
inline constexpr u16 pptp_to_plain = 0x0211;
inline constexpr u16 plain_to_pppoe = 0x1100;
inline constexpr u16 plain_to_l2tp = 0x1101;
inline constexpr u16 plain_to_pptp = 0x1102;
inline constexpr u16 plain_to_plain = 0x1111;
}  // namespace ppp_code

struct ppp_sides {
  net_device* input;   ///< layer-3 devices
  net_device* output;  ///< of the packet's route
  ppp_conn_info in;
  ppp_conn_info out;
  u16 code;

  /// How many of the two carry a session id; an entry has room for as many.
  [[nodiscard]] u32 pppoe_count() const { return ((code >> 8) == 0) + ((code & 0xFF) == 0); }
};

/// Asks both devices for their channels; any context. A point-to-point device without a channel is
/// a plain one, and makes both sides count as plain.
[[nodiscard]] ppp_sides ppp_sides_of(net_device* input, net_device* output);

/// Bytes of an entry; `Size` is the entry's enumeration of sizes.
template <typename Size>
[[nodiscard]] constexpr std::size_t entry_size_for(u32 pppoe_sides) {
  constexpr Size sizes[] = {Size::no_pppoe, Size::one_pppoe, Size::two_pppoe};
  return static_cast<std::size_t>(sizes[pppoe_sides]);
}

/// The longest packet that the output's PPP interface takes, as entries keep it.
[[nodiscard]] inline u16 ppp_mtu_of(const net_device* ppp_dev) {
  constexpr u32 most = 0xFFFF;
  return static_cast<u16>(ppp_dev->mtu < most ? ppp_dev->mtu : most);
}

/// The entry's frames leave in the output's PPPoE session. False without a session.
template <typename Entry>
[[nodiscard]] bool record_pppoe_output(Entry* entry, const ppp_sides& sides) {
  const auto* session = static_cast<const pppoe_params*>(ppp_channel_params(sides.out.chan));
  entry->sendif = session->dev;
  copy_mac(entry->dmac, sides.out.mac);
  copy_mac(entry->smac, session->dev->dev_addr);
  entry->pppoe_sid = sides.out.sid;
  entry->ppp_mtu = ppp_mtu_of(sides.output);
  return sides.out.sid != pppoe_no_session;
}

/// The entry's frames come in the input's PPPoE session. False without a session.
template <typename Entry>
[[nodiscard]] bool record_pppoe_input(Entry* entry, const ppp_sides& sides) {
  entry->flags |= ipc_flag::pppoe_in;
  entry->ppp_dev = sides.input;
  entry->pppoe_sid = sides.in.sid;
  return sides.in.sid != pppoe_no_session;
}

/// Records a connection whose sides are PPPoE or plain in its new entry, which is large enough.
/// False when a session is missing: such a connection is not to be cached.
template <typename Entry>
[[nodiscard]] bool record_pppoe_sides(Entry* entry, const ppp_sides& sides) {
  switch (sides.code) {
    case ppp_code::pppoe_to_plain:
      return record_pppoe_input(entry, sides);
    case ppp_code::plain_to_pppoe:
      entry->flags |= ipc_flag::pppoe_out;
      entry->ppp_dev = sides.output;
      return record_pppoe_output(entry, sides);
    case ppp_code::pppoe_to_pppoe:
      entry->flags |= ipc_flag::pppoe_in_out;
      entry->ppp_dev = sides.input;
      entry->pppoe_sid_in = sides.in.sid;
      return record_pppoe_output(entry, sides) && sides.in.sid != pppoe_no_session;
    default:
      return true;
  }
}

}  // namespace tarvelo
