// SPDX-License-Identifier: GPL-2.0-only
//
// The bridged path: a frame between two hosts that the cache knows in the same bridge leaves by the
// receiver's port as it is, but for its VLAN tag.
#pragma once

#include "module/brc/table.h"
#include "module/forward/fate.h"
#include "module/forward/frame.h"

namespace tarvelo {

struct bridge_pair {
  bridge_host sender;
  bridge_host receiver;
};

/// True when both ends of an Ethernet frame are hosts of one bridge; softirq context.
[[nodiscard]] bool find_known_pair(vok_handle* ci, const sk_buff* skb, const frame& f,
                                   bridge_pair* pair);

/// The same; a sender of whom nothing is known is seen at once.
[[nodiscard]] inline bool find_bridge_pair(vok_handle* ci, const sk_buff* skb, frame f,
                                           bridge_pair* pair) {
  if (!may_know_host(ci, header_at<const wire::ethhdr>(skb, 0)->h_source)) [[likely]]
    return false;
  return find_known_pair(ci, skb, frame(f), pair);
}

/// Sends the frame to the receiver's port, or says why not.
fate forward_bridged(vok_handle* ci, sk_buff* skb, const frame& f, const bridge_pair& pair);

}  // namespace tarvelo
