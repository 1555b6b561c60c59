// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/routed.h"

#include "kernel/atomic.h"
#include "kernel/if_vlan.h"
#include "kernel/nf_conntrack.h"
#include "kernel/wire/transport.h"
#include "module/core/counters.h"
#include "module/forward/hooks.h"
#include "module/forward/ipv4_flow.h"
#include "module/forward/rewrite.h"
#include "module/forward/transmit.h"
#include "module/forward/vlan_tag.h"
#include "module/ipc/table.h"

namespace tarvelo {
namespace {

/// Calls of the add operation that a connection must have had. Fewer packets than these gain
/// nothing from the fast path, and tracking and its helpers have seen the beginning whole.
constexpr u32 ripe_after_adds = 20;

/// Entry modes that this path serves only together with a matching frame: all encapsulations.
constexpr u32 any_encapsulation = 0x7F0;

/// Tag control words of 0 and 1 are a tag that says nothing.
constexpr u32 first_meaningful_tci = 2;

[[nodiscard]] ipc_entry* find_current_entry(vok_handle* ci, const flow_key& key) {
  ipc_entry** link = find_flow(ci, key);
  if (link == nullptr || older_than_bridge_entry(**link)) return nullptr;
  return *link;
}

/// Gives the buffer a reference on the entry's connection, unless that is ending.
fate hold_connection(sk_buff* skb, const ipc_entry& entry) {
  nf_conn* ct = entry.ct;
  if (ct == nullptr) return fate::connection_gone;
  const u32 state = read_once(ct->status) & (IPS_CONFIRMED | IPS_DYING);
  if (state != IPS_CONFIRMED) return fate::connection_gone;
  if (!atomic_inc_not_zero(&ct->ct_general.use)) return fate::connection_gone;
  skb->nfct = &ct->ct_general;
  return fate::forward;
}

fate check_record(const vok_ct_ext* ext) {
  if (ext == nullptr) return fate::no_record;
  if (read_once(ext->double_nat) != 0) return fate::double_nat;
  return read_once(ext->add_calls) >= ripe_after_adds ? fate::forward : fate::not_ripe;
}

/// The end of a TCP connection is tracking's business, and so is all that comes after its start.
fate check_tcp_end(ipc_entry* entry, const ipv4_flow& flow) {
  if ((flow.tcp_flags & (wire::tcp_flag::fin | wire::tcp_flag::rst)) != 0) {
    entry->flags |= ipc_flag::tcp_closing;
  }
  return (entry->flags & ipc_flag::tcp_closing) == 0 ? fate::forward : fate::tcp_ending;
}

/// A frame in a PPPoE session needs an entry that expects one, and the other way round.
fate check_encapsulation(const frame& f, const ipc_entry& entry) {
  const bool plain = !f.is_pppoe() && (entry.flags & any_encapsulation) == 0;
  return plain ? fate::forward : fate::encapsulation;
}

/// The frame must fit the output device, and a tag that it gets must fit in front of it.
fate check_room(const sk_buff* skb, const frame& f, const ipc_entry& entry) {
  const u32 overhead = f.pushed ? 0 : f.link_length();
  if (skb->len - overhead > entry.sendif->mtu) return fate::too_long;
  const bool grows = is_vlan_dev(entry.sendif) && !f.is_tagged();
  if (grows && skb_headroom(skb) < wire::vlan_tag_length) return fate::no_headroom;
  return fate::forward;
}

/// Everything that can make the frame go back, once its entry is found.
fate check_entry(sk_buff* skb, const frame& f, const ipv4_flow& flow, ipc_entry* entry) {
  if (const fate r = hold_connection(skb, *entry); r != fate::forward) return r;
  if (const fate r = check_record(entry->ct->vok_ext); r != fate::forward) return r;
  if (const fate r = check_tcp_end(entry, flow); r != fate::forward) return r;
  if (const fate r = check_encapsulation(f, *entry); r != fate::forward) return r;
  if (const fate r = check_room(skb, f, *entry); r != fate::forward) return r;
  if (const fate r = run_hooks(skb, f, VOK_HOOK_IP_POST_ROUTING); r != fate::forward) return r;
  return skb_headlen(skb) >= flow.end ? fate::forward : fate::hook_cut_frame;
}

/// A VLAN device below the router that takes no part in the forwarding still shows what came in.
void count_vlan_input(const sk_buff* skb, const frame& f, const vok_ct_ext* ext) {
  if (f.tci < first_meaningful_tci) return;
  net_device* dev = read_once(ext->dev);
  if (dev != nullptr && is_vlan_dev(dev)) dev_count_rx(dev, skb->len);
}

/// Gives the frame the form in which its device takes it: without an Ethernet header, with a tag
/// for the device below a VLAN device, or as it is.
void fit_to_device(vok_handle* ci, sk_buff* skb, const ipc_entry& entry) {
  if ((entry.sendif->flags & IFF_POINTOPOINT) != 0) {
    skb_pull(skb, wire::ethernet_length);
    skb->protocol = wire::htons(wire::ethertype::ipv4);
  } else if (is_vlan_dev(entry.sendif)) {
    choose_vlan_slot(skb, entry.dir);
    _vok_add_vlan_tag(ci, skb, entry.ct);
  }
}

/// From here on the frame is the fast path's: it is sent, or lost when its device is down.
fate commit(vok_handle* ci, sk_buff* skb, const frame& f, const ipv4_flow& flow,
            const ipc_entry& entry) {
  translate(skb, f, flow, entry);
  // Addresses are written at the new start, so a tag goes by moving the start alone.
  if (f.is_tagged()) skb_pull(skb, wire::vlan_tag_length);
  write_addresses(skb, entry);
  refresh_timeout(entry.ct, flow.key.proto);
  skb->dev = entry.sendif;
  if ((entry.sendif->flags & IFF_UP) == 0) return fate::drop;

  count_vlan_input(skb, f, entry.ct->vok_ext);
  skb->priority = f.priority;
  vok_skb_reset_mac_header(skb);
  vok_skb_reset_network_header(skb, skb->data + wire::ethernet_length);
  fit_to_device(ci, skb, entry);
  skb->nfctinfo = entry.dir == IP_CT_DIR_REPLY ? IP_CT_ESTABLISHED_REPLY : IP_CT_ESTABLISHED;
  return fate::forward;
}

/// The part under the table's lock.
fate prepare(vok_handle* ci, sk_buff* skb, const frame& f, const ipv4_flow& flow) {
  ipc_entry* entry = find_current_entry(ci, flow.key);
  if (entry == nullptr) return fate::no_entry;
  if (const fate r = check_entry(skb, f, flow, entry); r != fate::forward) return r;
  return commit(ci, skb, f, flow, *entry);
}

}  // namespace

fate forward_routed(vok_handle* ci, sk_buff* skb, const frame& f) {
  if (skb->nfct != nullptr) return fate::already_tracked;
  if (!f.pushed) {
    if (const fate r = run_hooks(skb, f, VOK_HOOK_IP_PRE_ROUTING); r != fate::forward) return r;
  }
  ipv4_flow flow;
  if (const fate r = read_flow(skb, f, &flow); r != fate::forward) return r;

  spin_lock_bh(ci->ipc_lock);
  const fate result = prepare(ci, skb, f, flow);
  spin_unlock_bh(ci->ipc_lock);
  if (result != fate::forward) {
    nf_reset(skb);
    return result;
  }
  count_one(ip_packet);
  send(skb, family::ipv4);
  return fate::forward;
}

}  // namespace tarvelo
