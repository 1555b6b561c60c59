// SPDX-License-Identifier: GPL-2.0-only
//
// What a routed frame is wrapped in, before and after: VLAN tag, PPPoE session header, PPTP or L2TP
// tunnel. Shared by both families; IPv6 knows no tunnels here.
//
// Everything is worked out and checked first, as a plan, and then carried out, which cannot fail.
// A finished frame is
//
//   Ethernet header, with tag | PPPoE header, or tunnel headers | what is kept of the frame
//
// with the first two written anew, except that a frame whose entry changes no encapsulation keeps
// its EtherType, and that a re-labelled PPPoE frame keeps its PPPoE header but for the session id.
// The tag of a frame without change of encapsulation is left to the last step before transmission;
// so a frame gets its tag once, and the VLAN device counts it once.
//
// A frame that is plain before and after, as most are, needs no plan; what it
// takes is written here, where the routed path is compiled, and the rest is a step aside.
//
// All of it runs in softirq context under the table's lock.
#pragma once

#include "kernel/if_vlan.h"
#include "kernel/l2tp.h"
#include "kernel/skbuff.h"
#include "module/forward/frame.h"
#include "module/forward/mac.h"
#include "module/forward/passage.h"
#include "module/forward/transmit.h"
#include "module/forward/tunnel.h"

namespace tarvelo {

/// A frame as it came, in what wrapping.
struct arrival {
  frame link;
  u32 l3;  ///< offset of the IP header that was matched, in a tunnel the inner one
  tunnel_header tunnel;
};

/// How the frame's wrapping changes.
struct wrapping_plan {
  u32 kept;           ///< offset of the first byte that stays
  u32 link;           ///< bytes of Ethernet header in front of the rest, with the tag if `tags`
  u32 built;          ///< bytes of PPPoE or tunnel headers
  u32 growth;         ///< bytes of headroom that all of it needs, a later tag among them
  bool tags;          ///< the tag is written together with the encapsulation
  bool acknowledges;  ///< PPTP: an acknowledgement number goes with the packet
  u16 vid;
  net_device* vlan_below;  ///< the device under a VLAN output device; null: send no tag
};

/// Frame and entry agree on what the frame came in, and a PPPoE frame is of the entry's session.
fate check_arrival(const sk_buff* skb, const arrival& in, const passage& way);

/// Fills in the plan; `fate::forward` when the frame has room for it, in headroom and in the MTU of
/// the output device and of the PPP interface above it. The tunnel of `way` has been checked.
fate plan_wrapping(const sk_buff* skb, const arrival& in, const passage& way, wrapping_plan* plan);

/// True when the frame neither came in a session or tunnel nor leaves by one or by a VLAN device:
/// all of it but the Ethernet header and a received tag stays as it is. Such a frame needs no
/// check_arrival().
template <typename Entry>
[[nodiscard]] inline bool is_plain(frame link, tunnel_kind tunnel, const Entry& entry) {
  if (link.pushed || link.is_pppoe() || tunnel != tunnel_kind::none) return false;
  return (entry.flags & ipc_mode::any) == 0 && !is_vlan_dev(entry.sendif);
}

/// A frame for which is_plain() holds and whose IP header is at `l3` has no need of a plan, as long
/// as it is not longer than its output takes.
template <typename Entry>
inline fate check_plain_length(const sk_buff* skb, u32 l3, const Entry& entry) {
  const u32 length = skb->len - l3;
  if (length > entry.sendif->mtu) return fate::too_long;
  return entry.ppp_mtu == 0 || length <= entry.ppp_mtu ? fate::forward : fate::too_long;
}

/// Exchanges what is in front of the packet for what the plan says, but for the MAC addresses; the
/// new offset of the IP header. The buffer's `dev` becomes the device to transmit on.
[[nodiscard]] u32 rewrap(sk_buff* skb, const arrival& in, const passage& way,
                         const wrapping_plan& plan);

/// The last of it, at the start of the finished frame: MAC addresses, device and header offsets.
template <typename Entry>
inline void label(sk_buff* skb, const Entry& entry, net_device* dev, u32 network) {
  u8* data = skb->data;
  vok_skb_reset_mac_header(skb);
  vok_skb_reset_network_header(skb, data + network);
  copy_mac(data + offsetof(wire::ethhdr, h_dest), entry.dmac);
  copy_mac(data + offsetof(wire::ethhdr, h_source), entry.smac);
  skb->dev = dev;
}

}  // namespace tarvelo
