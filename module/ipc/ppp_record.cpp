// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/ppp_record.h"

#include "module/ipc/tunnel_output.h"

namespace tarvelo {
namespace {

[[nodiscard]] constexpr bool is_l2tp(const ppp_conn_info& side) {
  return side.type == static_cast<u8>(ppp_channel_type::l2tp);
}

/// Packets come out of the input's tunnel.
void record_tunnel_input(ipc_entry* entry, const ppp_sides& sides) {
  entry->flags |= is_l2tp(sides.in) ? ipc_flag::l2tp_in : ipc_flag::pptp_in;
  entry->ppp_dev = sides.input;
  entry->session = ppp_channel_params(sides.in.chan);
}

/// Packets go into the output's tunnel.
[[nodiscard]] bool record_tunnel_output(const sk_buff* skb, ipc_entry* entry,
                                        const ppp_sides& sides, tunnel_carrier carrier) {
  entry->flags |= is_l2tp(sides.out) ? ipc_flag::l2tp_out : ipc_flag::pptp_out;
  entry->ppp_mtu = ppp_mtu_of(sides.output);
  return leave_by_tunnel(skb, entry, sides.out, carrier);
}

}  // namespace

bool is_recordable(u16 code) {
  switch (code) {
    case ppp_code::pppoe_to_pppoe:
    case ppp_code::pppoe_to_l2tp:
    case ppp_code::pppoe_to_pptp:
    case ppp_code::pppoe_to_plain:
    case ppp_code::l2tp_to_pppoe:
    case ppp_code::l2tp_to_plain:
    case ppp_code::pptp_to_pppoe:
    case ppp_code::pptp_to_plain:
    case ppp_code::plain_to_pppoe:
    case ppp_code::plain_to_l2tp:
    case ppp_code::plain_to_pptp:
    case ppp_code::plain_to_plain:
      return true;
    default:
      return false;
  }
}

bool record_ipc_ppp(const sk_buff* skb, ipc_entry* entry, const ppp_sides& sides) {
  switch (sides.code) {
    case ppp_code::l2tp_to_plain:
    case ppp_code::pptp_to_plain:
      record_tunnel_input(entry, sides);
      return true;
    case ppp_code::l2tp_to_pppoe:
    case ppp_code::pptp_to_pppoe:
      record_tunnel_input(entry, sides);
      entry->flags |= ipc_flag::pppoe_out;
      return record_pppoe_output(entry, sides);
    case ppp_code::plain_to_l2tp:
    case ppp_code::plain_to_pptp:
      entry->ppp_dev = sides.output;
      return record_tunnel_output(skb, entry, sides, tunnel_carrier::any);
    case ppp_code::pppoe_to_l2tp:
    case ppp_code::pppoe_to_pptp:
      return record_pppoe_input(entry, sides) &&
             record_tunnel_output(skb, entry, sides, tunnel_carrier::not_ppp);
    default:
      return record_pppoe_sides(entry, sides);
  }
}

}  // namespace tarvelo
