// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/add.h"

#include "kernel/atomic.h"
#include "kernel/jiffies.h"
#include "kernel/printk.h"
#include "module/brc/table.h"
#include "module/core/memory.h"
#include "module/forward/mac.h"
#include "module/ipc/admission.h"
#include "module/ipc/next_hop.h"
#include "module/ipc/ppp_record.h"
#include "module/ipc/table.h"
#include "module/ipc/way_out.h"

namespace tarvelo {
namespace {

constexpr const char* reporter = "_vok_ipc_add";

/// The packet's input side: its layer-3 device where the packet still carries the device below.
[[nodiscard]] net_device* input_device(const sk_buff* skb) {
  const u32 flags = skb->fast_flags;
  const bool marked_reply =
      (flags & fast_flag::add_as_reply) != 0 && (flags & fast_flag::met_destination_nat) == 0;
  const bool original = (flags & fast_flag::original_direction) != 0;
  return original || marked_reply ? skb->rx_dev : skb->dev;
}

/// One entry holds one translation: the end that was translated at this hook.
void set_translation(ipc_entry* entry, const add_report& report) {
  if (report.tuple == nullptr) return;
  if (report.hooknum == NF_INET_POST_ROUTING) {
    entry->natip = report.tuple->src.u3.ip;
    entry->natp = report.tuple->src.u;
    entry->flags |= ipc_flag::snat;
  } else {
    entry->natip = report.tuple->dst.u3.ip;
    entry->natp = report.tuple->dst.u;
    entry->flags |= ipc_flag::dnat;
  }
}

[[nodiscard]] ipc_entry* build_entry(const add_report& report, const admitted& packet,
                                     const next_hop& hop, const ppp_sides& sides) {
  const std::size_t size = entry_size_for<ipc_entry_size>(sides.pppoe_count());
  auto* entry = static_cast<ipc_entry*>(plat_malloc_cleared(size));
  if (entry == nullptr) return nullptr;
  entry->sendif = hop.dev;
  entry->create_time = jiffies;
  entry->ct = report.skb->nfct != nullptr ? nf_ct_of(report.skb->nfct) : nullptr;
  copy_mac(entry->dmac, hop.dmac);
  copy_mac(entry->smac, hop.smac);
  entry->sip = packet.ip->saddr.raw();
  entry->dip = packet.ip->daddr.raw();
  entry->proto = packet.ip->protocol;
  entry->sport = packet.sport;
  entry->dport = packet.dport;
  entry->dir = packet.direction;
  set_translation(entry, report);
  return entry;
}

/// Both sides of PPP, and the device below VLAN devices and bridges. False when the flow must not
/// be cached.
[[nodiscard]] bool complete_entry(const sk_buff* skb, ipc_entry* entry, const ppp_sides& sides,
                                  way_out* out) {
  if (!record_ipc_ppp(skb, entry, sides)) return false;
  if (!find_way_out(entry->sendif, entry->dmac, out)) return false;
  entry->brc = out->bridge_entry;
  entry->sendif = out->sendif;
  return true;
}

void mark_added(const admitted& packet, const way_out& out) {
  vok_ct_ext* ext = packet.ext;
  remember_vlan(ext, packet.direction, out);
  // The kernel sets and clears its own marks in the same word, without the table's lock.
  atomic_set_mask(ct_ext_flag::ever_added | packet.marks, &ext->flags);
}

/// False when the key is taken.
[[nodiscard]] bool insert_unless_known(vok_handle* ci, ipc_entry* entry, const admitted& packet,
                                       const way_out& out, net_device* input, net_device* output) {
  spin_lock_bh(ci->ipc_lock);
  const bool fresh = find_flow(ci, ipv4_connections::key_of(*entry)) == nullptr;
  if (fresh) {
    remember_device(packet.ext, input, output);
    mark_added(packet, out);
    insert_flow(ci, entry);
  }
  spin_unlock_bh(ci->ipc_lock);
  return fresh;
}

void warn_of_missing_connection(const admitted& packet) {
  printk(
      "%s: in the ipc ip src =%0x     ip dst =%0x              protocol =%d   portsrc =%d     "
      "portdst =%d \n\n",
      reporter, packet.ip->saddr.raw(), packet.ip->daddr.raw(), packet.ip->protocol, packet.sport,
      packet.dport);
}

}  // namespace

void _ip_conntrack_ipct_add(vok_handle* ci, sk_buff* skb, unsigned int hooknum, nf_conn* ct,
                            int ctinfo, const nf_conntrack_tuple* tuple) {
  const add_report report = {skb, hooknum, ct, ctinfo, tuple};
  admitted packet;
  if (!admit(report, &packet)) return;

  const bool destination_translated = tuple != nullptr && hooknum == NF_INET_PRE_ROUTING;
  const u32 destination = destination_translated ? tuple->dst.u3.ip : packet.ip->daddr.raw();
  next_hop hop;
  if (!find_next_hop(skb, packet.ip, destination, &hop)) return;
  const ppp_sides sides = ppp_sides_of(input_device(skb), hop.dev);
  if (!is_recordable(sides.code)) return;

  ipc_entry* entry = build_entry(report, packet, hop, sides);
  if (entry == nullptr) return;
  way_out out;
  if (!complete_entry(skb, entry, sides, &out)) {
    release_entry(entry);
    return;
  }
  if (ci == nullptr || ci->ipc == nullptr) {
    printk("%s: Invalid input (ci %p ipce %p ipcp %p)", reporter, static_cast<void*>(ci),
           static_cast<void*>(entry), static_cast<void*>(nullptr));
    release_entry(entry);
    return;
  }
  const bool tracked = entry->ct != nullptr;
  if (!insert_unless_known(ci, entry, packet, out, skb->dev, hop.dev)) {
    release_entry(entry);
  } else if (!tracked) {
    warn_of_missing_connection(packet);
  }
}

}  // namespace tarvelo
