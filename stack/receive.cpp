// SPDX-License-Identifier: GPL-2.0-only
#include "stack/receive.h"

#include <cstring>

#include "kernel/fast_path.h"
#include "stack/ethernet_frame.h"
#include "stack/ethernet_input.h"
#include "stack/fast_path_tunnels.h"
#include "stack/fragment_offer.h"
#include "stack/ip_input.h"
#include "stack/ipv6_input.h"
#include "stack/pppoe.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

receive_counters& counters() noexcept {
  return core().received[hosted::processor()];
}

/// A frame with a proper sender, which is not the device itself: such a frame has gone round in a
/// loop.
bool is_proper_frame(const sk_buff* skb) noexcept {
  if (skb_headlen(skb) < wire::ethernet_length) return false;
  const u8* sender = ethernet_header(skb)->h_source;
  return !is_group_mac(sender) && !same_mac(sender, skb->dev->dev_addr);
}

/// The module tells frames with an Ethernet header from packets without one by the frame type, and
/// these are the types it knows. A packet without the header that shows one by chance would be
/// taken for a frame.
bool looks_like_a_frame(const sk_buff* skb) noexcept {
  wire::be16 type;
  std::memcpy(&type, skb->data + offsetof(wire::ethhdr, h_proto), sizeof type);
  switch (type.host()) {
    case wire::ethertype::ipv4:
    case wire::ethertype::ipv6:
    case wire::ethertype::vlan:
    case wire::ethertype::pppoe_session:
      return true;
    default:
      return false;
  }
}

/// Fragments that the fast path has taken at the second offer.
void count_followers(u32 taken) noexcept {
  for (; taken != 0; --taken)
    count_once(counters().fast);
}

/// Offers a frame to the fast path; true when it is gone. Softirq context is the RCU read side that
/// keeps the handle.
bool taken_by_fast_path(sk_buff* skb) noexcept {
  if (!read_once(core().offering)) return false;
  vok_handle* handle = rcu_dereference(kcih);
  if (handle == nullptr || read_once(handle->enable) == 0) return false;
  if (is_for_tunnel_end(handle, skb)) return false;
  count_once(counters().offered);
  const net_device* dev = skb->dev;
  const std::optional<fragment_view> fragment = fragment_to_follow(skb);
  if (handle->_vok_forward(handle, skb, 0) != 0) return false;
  count_once(counters().fast);
  if (fragment) count_followers(offer_followers(handle, *fragment, dev));
  return true;
}

/// True when neither the router nor a bridge of its has any use for a frame: dropped without taking
/// the lock, for on a busy segment there may be many.
bool is_for_strangers(const sk_buff* skb, const frame_place& place) noexcept {
  const u8* to = ethernet_header(skb)->h_dest;
  return place.port == nullptr && !is_group_mac(to) && !same_mac(to, place.dev->dev_addr);
}

/// What is for a group is received but never forwarded by the fast path, and so not offered.
bool may_be_offered(const sk_buff* skb, const frame_place& place) noexcept {
  const u8* to = ethernet_header(skb)->h_dest;
  if (is_group_mac(to) || (read_once(place.dev->flags) & IFF_UP) == 0) return false;
  if (place.port != nullptr) return bridge_may_offer(skb, place.port, place.foreign_tag);
  return same_mac(to, place.dev->dev_addr);
}

/// A session frame for the router that does not come from the other end of one of its sessions: the
/// module would look at nothing but the number. What crosses a bridge is not the router's.
bool is_of_strange_session(const sk_buff* skb, const frame_place& place, session_frame session) {
  if (session != session_frame::unknown) return false;
  return place.port == nullptr || is_for_bridge(ethernet_header(skb)->h_dest, place.port);
}

receive_verdict receive_ethernet(sk_buff* skb) {
  if (!is_proper_frame(skb)) return discard(skb);
  const frame_place place = place_of(skb);
  if (is_for_strangers(skb, place)) return discard(skb);
  offered_frame as_offered{};
  if (may_be_offered(skb, place)) {
    const net_device* dev = place.port != nullptr ? place.port->br->dev : place.dev;
    const session_frame session = session_frame_of(skb, dev);
    if (session == session_frame::known) skb->fast_flags |= fast_flag::received_on_ppp;
    const bool strange = is_of_strange_session(skb, place, session);
    if (!strange && taken_by_fast_path(skb)) return receive_verdict::fast;
    as_offered = note_offered(skb);
  }
  const stack_guard guard;
  core().as_offered = as_offered;
  return input_frame(skb);
}

bool is_ipv6(const sk_buff* skb) noexcept {
  constexpr unsigned version_shift = 4;
  return skb->data[0] >> version_shift == 6;
}

/// A link without headers carries IP only, told apart by its version: input checks it. Everything
/// that comes over a link between two is for the router.
receive_verdict receive_raw(sk_buff* skb) {
  if (skb_headlen(skb) < wire::ipv4_min_length) return discard(skb);
  offered_frame as_offered{};
  if (!looks_like_a_frame(skb)) {
    if (taken_by_fast_path(skb)) return receive_verdict::fast;
    as_offered = note_offered(skb);
  }
  const stack_guard guard;
  core().as_offered = as_offered;
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  return is_ipv6(skb) ? input_ipv6_packet(skb) : input_ip_packet(skb);
}

/// Frames come in on these two kinds of device; all others are stacked on them.
receive_verdict receive_on(sk_buff* skb, device_kind kind) {
  switch (kind) {
    case device_kind::port:
      return receive_ethernet(skb);
    case device_kind::rawip:
      return receive_raw(skb);
    default:
      return discard(skb);
  }
}

}  // namespace

receive_verdict receive_frame(sk_buff* skb) {
  net_device* dev = skb->dev;
  const device_record* record = core().devices.find(dev);
  receive_verdict verdict = receive_verdict::dropped;
  if (record == nullptr || (read_once(dev->flags) & IFF_UP) == 0) {
    kfree_skb(skb);
  } else {
    dev_count_rx(dev, skb->len);
    skb->rx_dev = dev;
    verdict = receive_on(skb, record->kind);
  }
  if (verdict == receive_verdict::dropped) {
    dev_count_rx_dropped(dev);
    count_once(counters().dropped);
  }
  return verdict;
}

}  // namespace tarvelo::stack
