// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/ppp_account.h"

#include "kernel/ppp_channel.h"

namespace tarvelo {
namespace {

void sent_by_recorded_device(const sk_buff* skb, const passage& way) {
  net_device* dev = read_once(way.ext->dev);
  if (dev != nullptr && (read_once(dev->flags) & IFF_POINTOPOINT) != 0) ppp_txstats_upd(dev, skb);
}

/// A re-labelled frame stays in PPP and counts once: on the input side when the kernel has marked
/// it as a known session's.
void account_relabelled(const sk_buff* skb, const passage& way) {
  if ((skb->fast_flags & fast_flag::received_on_ppp) != 0) {
    ppp_rxstats_upd(way.ppp_dev, skb);
  } else {
    sent_by_recorded_device(skb, way);
  }
}

}  // namespace

void account_received(const sk_buff* skb, const passage& way) {
  ppp_rxstats_upd(way.ppp_dev, skb);
}

void account_sent(const sk_buff* skb, const passage& way) {
  if (way.has(ipc_flag::pppoe_in_out)) {
    account_relabelled(skb, way);
  } else if (way.has(ipc_mode::tunnel_out) && way.has(ipc_flag::pppoe_in)) {
    sent_by_recorded_device(skb, way);
  } else if (!way.has(ipc_mode::tunnel_in)) {
    ppp_txstats_upd(way.ppp_dev, skb);
  }
}

}  // namespace tarvelo
