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
// All of it runs in softirq context under the table's lock.
#pragma once

#include "kernel/l2tp.h"
#include "kernel/skbuff.h"
#include "module/forward/frame.h"
#include "module/forward/passage.h"
#include "module/forward/tunnel.h"

namespace tarvelo {

/// A frame as it came, in what wrapping.
struct arrival {
  const frame& link;
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

/// Carries the plan out: afterwards the data begins with the complete frame, the buffer's `dev` is
/// its device, and its header offsets are set. PPP interfaces and VLAN devices that took part are
/// accounted.
void carry_out(sk_buff* skb, const arrival& in, const passage& way, const wrapping_plan& plan);

}  // namespace tarvelo
