// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/bridged.h"

#include "kernel/jiffies.h"
#include "module/core/counters.h"
#include "module/forward/hooks.h"
#include "module/forward/transmit.h"
#include "module/forward/vlan_tag.h"

namespace tarvelo {
namespace {

[[nodiscard]] bool leaves_tagged(const bridge_host& receiver) {
  return receiver.tag_mode == static_cast<u8>(tag_mode::tag);
}

/// All that can stand in the way, before the frame is touched.
fate check_departure(const sk_buff* skb, frame f, const bridge_host& receiver) {
  if (!leaves_tagged(receiver) && receiver.tag_mode != static_cast<u8>(tag_mode::untag)) {
    return fate::unknown_tag_mode;
  }
  if (receiver.sendif == skb->dev) return fate::same_device;
  if (skb_headlen(skb) < f.l3) return fate::hook_cut_frame;
  if (skb->len - f.link_length() > receiver.sendif->mtu) return fate::too_long;
  const bool grows = leaves_tagged(receiver) && !f.is_tagged();
  if (grows && skb_headroom(skb) < wire::vlan_tag_length) return fate::no_headroom;
  return fate::forward;
}

void apply_tag_mode(sk_buff* skb, frame f, const bridge_host& receiver) {
  const u16 tci = tag_control(receiver.VLANID, f.priority);
  if (!leaves_tagged(receiver)) {
    if (f.is_tagged()) remove_tag(skb);
  } else if (f.is_tagged()) {
    header_at<wire::vlan_ethhdr>(skb, 0)->h_vlan_TCI = wire::be16(tci);
  } else {
    insert_tag(skb, tci);
  }
}

[[nodiscard]] u32 departing_l3_offset(frame f, const bridge_host& receiver) {
  const u32 link = leaves_tagged(receiver) ? wire::tagged_ethernet_length : wire::ethernet_length;
  return f.is_pppoe() ? link + wire::pppoe_length : link;
}

}  // namespace

bool find_known_pair(vok_handle* ci, const sk_buff* skb, const frame& f, bridge_pair* pair) {
  const auto* ethernet = header_at<const wire::ethhdr>(skb, 0);
  const bool sender_known = f.is_tagged()
                                ? find_host_in_vlan(ci, ethernet->h_source, f.vid(), &pair->sender)
                                : find_host(ci, ethernet->h_source, &pair->sender);
  return sender_known &&
         find_host_in_bridge(ci, ethernet->h_dest, pair->sender.bridgeID, &pair->receiver);
}

fate forward_bridged(vok_handle* ci, sk_buff* skb, const frame& f, const bridge_pair& pair) {
  const bridge_host& receiver = pair.receiver;
  if (read_once(ci->portal_check) != 0 && pair.sender.portal == 0) return fate::portal_closed;
  if (const fate r = run_hooks(skb, f, VOK_HOOK_BRIDGE_ROUTING, f.ip); r != fate::forward) return r;
  write_once(pair.sender.entry->last_seen, u32{jiffies});
  if (const fate r = check_departure(skb, f, receiver); r != fate::forward) return r;

  apply_tag_mode(skb, f, receiver);
  skb->dev = receiver.sendif;
  skb->priority = f.priority;
  vok_skb_reset_mac_header(skb);
  vok_skb_reset_network_header(skb, skb->data + departing_l3_offset(f, receiver));
  count_one(bridge_packet);
  send(skb, f.ip);
  return fate::forward;
}

}  // namespace tarvelo
