// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipv6/add.h"

#include "kernel/atomic.h"
#include "kernel/route6.h"
#include "module/brc/table.h"
#include "module/core/memory.h"
#include "module/ipc/next_hop.h"
#include "module/ipc/ppp_sides.h"
#include "module/ipc/way_out.h"
#include "module/ipv6/admission.h"
#include "module/ipv6/table.h"

namespace tarvelo {
namespace {

/// False when the packet is not plainly forwarded, or its next hop's hardware address not known.
[[nodiscard]] bool find_next_hop_v6(const sk_buff* skb, const wire::ipv6hdr* ip, next_hop* hop) {
  const dst_entry* dst = skb_dst(skb);
  if (dst == nullptr || dst->input != ip6_forward || dst->dev == nullptr) return false;
  const auto* route = reinterpret_cast<const rt6_info*>(dst);
  return read_next_hop(&nd_tbl, rt6_nexthop(route, &ip->daddr), dst->dev, hop);
}

/// The packet's input side: its layer-3 device where the packet still carries the device below.
[[nodiscard]] net_device* input_device(const sk_buff* skb) {
  const bool original = (skb->fast_flags & fast_flag::original_direction) != 0;
  return original ? skb->rx_dev : skb->dev;
}

[[nodiscard]] bool knows_sides(u16 code) {
  switch (code) {
    case ppp_code::plain_to_plain:
    case ppp_code::pppoe_to_plain:
    case ppp_code::plain_to_pppoe:
    case ppp_code::pppoe_to_pppoe:
      return true;
    default:
      return false;
  }
}

[[nodiscard]] std::size_t entry_size(const ppp_sides& sides) {
  return entry_size_for<ipc_v6_entry_size>(sides.pppoe_count());
}

[[nodiscard]] ipc_v6_entry* build_entry(const admitted_v6& packet, const next_hop& hop,
                                        const ppp_sides& sides) {
  auto* entry = static_cast<ipc_v6_entry*>(plat_malloc_cleared(entry_size(sides)));
  if (entry == nullptr) return nullptr;
  entry->sendif = hop.dev;
  entry->ct = packet.ct;
  copy_mac(entry->dmac, hop.dmac);
  copy_mac(entry->smac, hop.smac);
  __builtin_memcpy(entry->sip, &packet.ip->saddr, sizeof(entry->sip));
  __builtin_memcpy(entry->dip, &packet.ip->daddr, sizeof(entry->dip));
  entry->sport = packet.sport;
  entry->dport = packet.dport;
  entry->proto = packet.proto;
  entry->dir = packet.direction;
  return entry;
}

/// Both sides of PPPoE, and the device below VLAN devices and bridges; the entry does not follow
/// its host's place in the bridge, so it keeps no reference. False when the flow must not be
/// cached.
[[nodiscard]] bool complete_entry(ipc_v6_entry* entry, const ppp_sides& sides, way_out* out) {
  if (!record_pppoe_sides(entry, sides)) return false;
  if (!find_way_out(entry->sendif, entry->dmac, out)) return false;
  if (out->bridge_entry != nullptr) put_bridge_entry(out->bridge_entry);
  entry->sendif = out->sendif;
  return true;
}

/// False when the key is taken.
[[nodiscard]] bool insert_unless_known(vok_handle* ci, ipc_v6_entry* entry, net_device* input,
                                       net_device* output, const way_out& out) {
  vok_ct_ext* ext = entry->ct->vok_ext;
  spin_lock_bh(ci->ipc_v6_lock);
  remember_vlan(ext, static_cast<ip_conntrack_dir>(entry->dir), out);
  remember_device(ext, input, output);
  const bool fresh = find_flow(ci, ipv6_connections::key_of(*entry)) == nullptr;
  if (fresh) {
    insert_flow(ci, entry);
    // The kernel sets and clears its own marks in the same word, without the table's lock.
    atomic_set_mask(ct_ext_flag::ever_added, &ext->flags);
  }
  spin_unlock_bh(ci->ipc_v6_lock);
  return fresh;
}

}  // namespace

void __ipv6_conntrack_ipc_add(vok_handle* ci, sk_buff* skb) {
  admitted_v6 packet;
  if (!admit_v6(skb, &packet)) return;
  next_hop hop;
  if (!find_next_hop_v6(skb, packet.ip, &hop)) return;
  const ppp_sides sides = ppp_sides_of(input_device(skb), hop.dev);
  if (!knows_sides(sides.code)) return;

  ipc_v6_entry* entry = build_entry(packet, hop, sides);
  if (entry == nullptr) return;
  way_out out;
  const bool added = complete_entry(entry, sides, &out) && ipv6_table::exists(ci) &&
                     insert_unless_known(ci, entry, skb->dev, hop.dev, out);
  // At once: nobody has seen it.
  if (!added) plat_mfree_t(entry, entry_size(sides));
}

}  // namespace tarvelo
