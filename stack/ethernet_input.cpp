// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ethernet_input.h"

#include "kernel/if_vlan.h"
#include "kernel/vlan_table.h"
#include "stack/arp.h"
#include "stack/ethernet_frame.h"
#include "stack/ip_input.h"
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
  skb->priority = content_priority(skb, skb->priority);
  addressee to = addressee::stranger;
  for (;;) {
    while (is_priority_tagged(skb))
      remove_vlan_tag(skb);
    const frame_place place = place_of(skb);
    if (!enter(skb, place)) return discard(skb);
    to = addressee_at(skb, place.dev, to);
    if (place.port == nullptr) return deliver_frame(skb, to);

    switch (pass_through_bridge(skb, place.port)) {
      case bridge_decision::forwarded:
        ++core().slow_forwarded;
        return receive_verdict::slow;
      case bridge_decision::dropped:
        return discard(skb);
      case bridge_decision::up:
        break;
    }
    skb->dev = place.port->br->dev;
    if ((read_once(skb->dev->flags) & IFF_UP) == 0) return discard(skb);
    dev_count_rx(skb->dev, skb->len);
  }
}

}  // namespace tarvelo::stack
