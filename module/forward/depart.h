// SPDX-License-Identifier: GPL-2.0-only
//
// The last step of the routed path of either family that the table's lock covers: the frame is
// complete but for what its device makes of it. Softirq context.
#pragma once

#include "kernel/if_vlan.h"
#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"
#include "module/forward/passage.h"
#include "tarvelo/handle.h"

namespace tarvelo {

/// Tag control words of 0 and 1 are a tag that says nothing.
inline constexpr u16 first_meaningful_tci = 2;

/// For a frame that came with a tag: a VLAN device below the router that takes no part in the
/// forwarding still shows what came in; what came in by PPP was counted there.
void count_vlan_input(const sk_buff* skb, const passage& way);

/// Without an Ethernet header, with a tag for the device below a VLAN device, or as it is.
void fit_to_device(vok_handle* ci, sk_buff* skb, const frame& f, const passage& way, nf_conn* ct);

/// Gives the frame its priority and the form in which its device takes it; `fate::drop` when that
/// device is down. The buffer carries the connection of `entry`.
template <typename Entry>
inline fate depart(vok_handle* ci, sk_buff* skb, frame f, const Entry& entry) {
  const net_device* dev = skb->dev;
  const u32 flags = read_once(dev->flags);
  if ((flags & IFF_UP) == 0) return fate::drop;
  if (f.tci >= first_meaningful_tci) [[unlikely]]
    count_vlan_input(skb, passage_of(entry));
  skb->priority = f.priority;
  if ((flags & IFF_POINTOPOINT) != 0 || is_vlan_dev(dev)) [[unlikely]] {
    fit_to_device(ci, skb, frame(f), passage_of(entry), entry.ct);
  }
  skb->nfctinfo = entry.dir == IP_CT_DIR_REPLY ? IP_CT_ESTABLISHED_REPLY : IP_CT_ESTABLISHED;
  return fate::forward;
}

}  // namespace tarvelo
