// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/vlan_tag.h"

#include "kernel/if_vlan.h"
#include "kernel/nf_conntrack.h"
#include "module/forward/frame.h"
#include "module/forward/transmit.h"

namespace tarvelo {
namespace {

constexpr u32 addresses_length = 2 * wire::mac_length;

/// Through a register-sized copy, since old and new place overlap.
void move_addresses(u8* to, const u8* from) {
  u8 addresses[addresses_length];
  __builtin_memcpy(addresses, from, addresses_length);
  __builtin_memcpy(to, addresses, addresses_length);
}

[[nodiscard]] vok_ct_ext_vlan* chosen_slot(const sk_buff* skb, vok_ct_ext* ext) {
  const u32 slot = (skb->fast_flags & fast_flag::vlan_slot_mask) >> fast_flag::vlan_slot_shift;
  constexpr u32 slots = sizeof(ext->vlan) / sizeof(ext->vlan[0]);
  return slot < slots ? &ext->vlan[slot] : nullptr;
}

}  // namespace

void insert_tag(sk_buff* skb, u16 tci) {
  const u8* old = skb->data;
  skb_push(skb, wire::vlan_tag_length);
  move_addresses(skb->data, old);
  auto* header = header_at<wire::vlan_ethhdr>(skb, 0);
  header->h_vlan_proto = wire::be16(wire::ethertype::vlan);
  header->h_vlan_TCI = wire::be16(tci);
}

void remove_tag(sk_buff* skb) {
  const u8* old = skb->data;
  skb_pull(skb, wire::vlan_tag_length);
  move_addresses(skb->data, old);
}

void choose_vlan_slot(sk_buff* skb, u8 direction) {
  skb->fast_flags &= ~fast_flag::vlan_slot_mask;
  skb->fast_flags |= fast_flag::vlan_slot_valid | u32{direction} << fast_flag::vlan_slot_shift;
}

void _vok_add_vlan_tag(vok_handle* ci, sk_buff* skb, nf_conn* ct) {
  if (ci == nullptr || ct == nullptr || ct->vok_ext == nullptr) return;
  const vok_ct_ext_vlan* slot = chosen_slot(skb, ct->vok_ext);
  if (slot == nullptr) return;
  net_device* real_dev = read_once(slot->real_dev);
  if (real_dev == nullptr) return;
  if (skb_headlen(skb) < wire::ethernet_length) return;
  if (skb_headroom(skb) < wire::vlan_tag_length) return;

  if (is_vlan_dev(skb->dev)) dev_count_tx(skb->dev, skb->len);
  insert_tag(skb, tag_control(read_once(slot->vid), skb->priority));
  skb->fast_flags |= fast_flag::tag_written;
  vok_skb_reset_mac_header(skb);
  skb->dev = real_dev;
}

}  // namespace tarvelo
