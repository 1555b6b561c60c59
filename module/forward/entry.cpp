// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/entry.h"

#include "module/core/counters.h"
#include "module/core/memory.h"
#include "module/forward/bridged.h"
#include "module/forward/frame.h"
#include "module/forward/routed.h"
#include "module/ipv6/forward.h"

namespace tarvelo {
namespace {

constexpr int consumed = 0;
constexpr int not_consumed = -1;

/// Counts an Ethernet frame and bridges it, or leaves it to `route`.
template <typename Route>
inline fate forward_ethernet(vok_handle* ci, sk_buff* skb, frame f, Route route) {
  count_one(ethernet_packet);
  bridge_pair pair;
  if (find_bridge_pair(ci, skb, f, &pair)) [[unlikely]]
    return forward_bridged(ci, skb, frame(f), pair);
  return route(ci, skb, f);
}

fate route(vok_handle* ci, sk_buff* skb, const frame& f) {
  return f.ip == family::ipv4 ? forward_routed(ci, skb, f) : _vok_forward_v6(ci, skb, f);
}

fate forward_classified(vok_handle* ci, sk_buff* skb, const frame& f) {
  if (f.pushed) return route(ci, skb, f);
  if ((skb->data[0] & wire::mac_group_bit) != 0) return fate::group_destination;
  return forward_ethernet(ci, skb, f, route);
}

[[gnu::noinline]] fate forward_any(vok_handle* ci, sk_buff* skb) {
  frame f;
  fate result = classify(skb, &f);
  if (result == fate::forward) result = forward_classified(ci, skb, f);
  if (is_handed_back(result) && f.pushed) skb_pull(skb, wire::ethernet_length);
  return result;
}

/// Most frames.
inline fate forward_plain(vok_handle* ci, sk_buff* skb) {
  return forward_ethernet(ci, skb, plain_ipv4::frame_of(skb), forward_routed_plain);
}

}  // namespace

fate forward_frame(vok_handle* ci, sk_buff* skb) {
  if (ci == nullptr || skb == nullptr) return fate::no_input;
  const fate result = plain_ipv4::is_plain(skb) ? forward_plain(ci, skb) : forward_any(ci, skb);
  if (result == fate::drop) plat_skb_free(skb);
  return result;
}

// Compiled in one piece with all that most frames need.
[[gnu::flatten]] int _vok_forward(vok_handle* ci, sk_buff* skb, unsigned long) {
  return is_handed_back(forward_frame(ci, skb)) ? not_consumed : consumed;
}

int _vok_forward_eth_protocol(vok_handle* ci, sk_buff* skb, unsigned long arg) {
  if (ci == nullptr || skb == nullptr) return not_consumed;
  if (skb_headroom(skb) < wire::ethernet_length) return not_consumed;
  const u16 mac_header = skb->mac_header;
  skb_push(skb, wire::ethernet_length);
  if (_vok_forward(ci, skb, arg) == consumed) return consumed;
  skb_pull(skb, wire::ethernet_length);
  skb->mac_header = mac_header;
  return not_consumed;
}

}  // namespace tarvelo
