// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ethernet_input.h"

#include "kernel/if_vlan.h"
#include "kernel/vlan_table.h"
#include "stack/arp.h"
#include "stack/ethernet_frame.h"
#include "stack/frame_priority.h"
#include "stack/ip_input.h"
#include "stack/ipv6_input.h"
#include "stack/pppoe.h"
#include "stack/stack_core.h"
#include "stack/vlan.h"

namespace tarvelo::stack {

namespace {

/// Whom a frame is for, as far as the devices that it has passed tell.
enum class addressee : u8 {
  stranger,
  group,
  router,
};

addressee addressee_at(const sk_buff* skb, const net_device* dev, addressee so_far) noexcept {
  const u8* to = ethernet_header(skb)->h_dest;
  if (is_group_mac(to)) return addressee::group;
  return same_mac(to, dev->dev_addr) ? addressee::router : so_far;
}

bool is_priority_tagged(const sk_buff* skb) noexcept {
  return is_tagged(skb) && tag_vid(skb) == 0;
}

/// Moves a frame to its place. False when that takes no frames, or the frame claims to come from
/// there: it has gone round in a loop.
bool enter(sk_buff* skb, const frame_place& place) noexcept {
  if ((read_once(place.dev->flags) & IFF_UP) == 0) return false;
  if (same_mac(ethernet_header(skb)->h_source, place.dev->dev_addr)) return false;
  if (place.dev == skb->dev) return true;
  remove_vlan_tag(skb);
  skb->dev = place.dev;
  dev_count_rx(skb->dev, skb->len);
  return true;
}

bool enter_bridge_device(sk_buff* skb, net_device* dev) noexcept {
  skb->dev = dev;
  if ((read_once(dev->flags) & IFF_UP) == 0) return false;
  dev_count_rx(dev, skb->len);
  return true;
}

/// The verdict on a frame of which a bridge may have `sent` copies, whatever became of the rest.
receive_verdict end_of(receive_verdict verdict, bool sent) noexcept {
  if (!sent) return verdict;
  ++core().slow_forwarded;
  return receive_verdict::slow;
}

bridge_decision pass_through_bridge(sk_buff* skb, net_bridge_port* port) {
  for (const auto& one : core().bridges) {
    if (one->device() == port->br->dev) return one->input(skb, port);
  }
  return bridge_decision::dropped;
}

/// Hands a frame to its protocol at the layer-3 device that it has reached.
receive_verdict deliver_frame(sk_buff* skb, addressee to) {
  if (to == addressee::stranger) return discard(skb);
  const u16 type = ethernet_header(skb)->h_proto.host();
  skb->rx_dev = skb->dev;
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  skb_pull(skb, wire::ethernet_length);
  switch (type) {
    case wire::ethertype::ipv4:
      // To a group: none of the router's services is reached that way, and it forwards none.
      return to == addressee::router ? input_ip_packet(skb) : discard(skb);
    case wire::ethertype::ipv6:
      return to == addressee::router ? input_ipv6_packet(skb) : input_ipv6_group_packet(skb);
    case wire::ethertype::arp:
      return input_arp(skb);
    case wire::ethertype::pppoe_session:
      return to == addressee::router ? input_pppoe(skb) : discard(skb);
    default:
      return discard(skb);
  }
}

}  // namespace

frame_place place_of(const sk_buff* skb) noexcept {
  frame_place place{skb->dev, nullptr, false};
  if (is_tagged(skb) && tag_vid(skb) != 0) {
    net_device* vlan = vlan_find_dev(skb->dev, tag_vid(skb));
    place.foreign_tag = vlan == nullptr;
    if (vlan != nullptr) place.dev = vlan;
  }
  const device_record* record = core().devices.find(place.dev);
  if (record != nullptr) place.port = record->bridge_port;
  return place;
}

receive_verdict input_frame(sk_buff* skb) {
  note_frame_priority(skb);
  addressee to = addressee::stranger;
  bool sent = false;
  for (;;) {
    while (is_priority_tagged(skb))
      remove_vlan_tag(skb);
    const frame_place place = place_of(skb);
    if (!enter(skb, place)) return end_of(discard(skb), sent);
    to = addressee_at(skb, place.dev, to);
    if (place.port == nullptr) return end_of(deliver_frame(skb, to), sent);

    switch (pass_through_bridge(skb, place.port)) {
      case bridge_decision::forwarded:
        return end_of(receive_verdict::slow, true);
      case bridge_decision::dropped:
        return end_of(discard(skb), sent);
      case bridge_decision::flooded:
        sent = true;
        break;
      case bridge_decision::up:
        break;
    }
    if (!enter_bridge_device(skb, place.port->br->dev)) return end_of(discard(skb), sent);
  }
}

}  // namespace tarvelo::stack
