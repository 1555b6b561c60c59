// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/add.h"

#include "kernel/if_vlan.h"
#include "kernel/jiffies.h"
#include "kernel/ppp.h"
#include "kernel/printk.h"
#include "module/brc/table.h"
#include "module/core/memory.h"
#include "module/forward/mac.h"
#include "module/ipc/admission.h"
#include "module/ipc/next_hop.h"
#include "module/ipc/table.h"

namespace tarvelo {
namespace {

constexpr const char* reporter = "_vok_ipc_add";

/// VLAN ids 0 and 1 are the priority tag and the default VLAN: no VLAN of their own.
constexpr u16 first_real_vlan_id = 2;

/// How input and output side are encapsulated: the input's channel type in the high byte, the
/// output's in the low byte. Codes other than this one are tunnels and PPPoE sessions, which are
/// left to the stack.
constexpr u32 plain_on_both_sides = 0x1111;

/// Where frames leave and, when there is a VLAN, what the connection's record must say about it.
struct way_out {
  net_device* sendif;
  ::brc* bridge_entry;  ///< one reference held, or null
  u16 vid;
  net_device* real_dev;  ///< null: no VLAN
};

[[nodiscard]] u32 channel_type(net_device* dev, bool* known) {
  ppp_conn_info info = {};
  info.type = static_cast<u8>(ppp_channel_type::none);
  if ((dev->flags & IFF_POINTOPOINT) != 0) *known = ppp_get_conn_pkt_info(dev, &info) == 0;
  return info.type;
}

/// A point-to-point device without a PPP channel is a plain one.
[[nodiscard]] u32 classify_encapsulation(net_device* input, net_device* output) {
  bool known = true;
  const u32 out = channel_type(output, &known);
  if (!known) return plain_on_both_sides;
  const u32 in = channel_type(input, &known);
  if (!known) return plain_on_both_sides;
  return in << 8 | out;
}

/// The packet's input side: its layer-3 device where the packet still carries the device below.
[[nodiscard]] net_device* input_device(const sk_buff* skb) {
  const u32 flags = skb->fast_flags;
  const bool marked_reply =
      (flags & fast_flag::add_as_reply) != 0 && (flags & fast_flag::met_destination_nat) == 0;
  const bool original = (flags & fast_flag::original_direction) != 0;
  return original || marked_reply ? skb->rx_dev : skb->dev;
}

/// Looks through a VLAN device or a bridge. False when the bridge does not know the host.
[[nodiscard]] bool find_way_out(const next_hop& hop, way_out* out) {
  *out = {hop.dev, nullptr, 0, nullptr};
  if (is_vlan_dev(hop.dev)) {
    out->vid = vlan_dev_vlan_id(hop.dev);
    out->real_dev = vlan_dev_real_dev(hop.dev);
    return true;
  }
  if ((hop.dev->priv_flags & IFF_EBRIDGE) == 0) return true;

  bridge_host host;
  if (!hold_host_in_bridge(cih, hop.dmac, bridge_id(hop.dev), &host)) return false;
  out->bridge_entry = host.entry;
  out->sendif = host.sendif;
  if (host.vlan_dev != nullptr) {
    out->sendif = host.vlan_dev;
    out->vid = host.VLANID;
    out->real_dev = host.sendif;
  }
  return true;
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
                                     const next_hop& hop, const way_out& out) {
  constexpr auto size = static_cast<std::size_t>(ipc_entry_size::no_pppoe);
  auto* entry = static_cast<ipc_entry*>(plat_malloc_cleared(size));
  if (entry == nullptr) return nullptr;
  entry->brc = out.bridge_entry;
  entry->sendif = out.sendif;
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

/// The device that tells later which of the connection's devices is the VLAN or PPP side.
void remember_device(vok_ct_ext* ext, net_device* input, net_device* output) {
  if (ext->dev != nullptr) return;
  if (is_vlan_dev(input) && vlan_dev_vlan_id(input) >= first_real_vlan_id) {
    write_once(ext->dev, input);
  } else if ((output->flags & IFF_POINTOPOINT) != 0) {
    write_once(ext->dev, output);
  }
}

void mark_added(const admitted& packet, const way_out& out) {
  vok_ct_ext* ext = packet.ext;
  if (out.real_dev != nullptr) {
    ext->vlan[packet.direction].vid = out.vid;
    write_once(ext->vlan[packet.direction].real_dev, out.real_dev);
  }
  write_once(ext->flags, read_once(ext->flags) | ct_ext_flag::ever_added | packet.marks);
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
  if (classify_encapsulation(input_device(skb), hop.dev) != plain_on_both_sides) return;
  way_out out;
  if (!find_way_out(hop, &out)) return;

  ipc_entry* entry = build_entry(report, packet, hop, out);
  if (entry == nullptr) {
    if (out.bridge_entry != nullptr) put_bridge_entry(out.bridge_entry);
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
