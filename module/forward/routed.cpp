// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/routed.h"

#include "kernel/atomic.h"
#include "kernel/nf_conntrack.h"
#include "kernel/wire/transport.h"
#include "module/core/counters.h"
#include "module/forward/build_l2tp.h"
#include "module/forward/depart.h"
#include "module/forward/encapsulation.h"
#include "module/forward/hooks.h"
#include "module/forward/ipv4_flow.h"
#include "module/forward/rewrite.h"
#include "module/forward/transmit.h"
#include "module/ipc/table.h"

namespace tarvelo {
namespace {

/// Calls of the add operation that a connection must have had. Fewer packets than these gain
/// nothing from the fast path, and tracking and its helpers have seen the beginning whole.
constexpr u32 ripe_after_adds = 20;

/// What the checks have found out and taken for one packet.
struct routed_packet {
  passage way;
  wrapping_plan plan;
  l2tp_session* session = nullptr;  ///< one reference held, or null
};

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

/// A fragment cannot be put into a session or tunnel: the others of its datagram would be too long
/// or have nowhere to go.
fate check_fragment(const ipv4_flow& flow, const passage& way) {
  const bool whole = flow.fragment == fragment_kind::none;
  return whole || !way.has(ipc_mode::built) ? fate::forward : fate::fragment;
}

/// Frame, entry and session agree, and what the frame becomes has room.
fate check_passage(sk_buff* skb, const arrival& in, const passage& way, routed_packet* packet) {
  if (const fate r = check_arrival(skb, in, way); r != fate::forward) return r;
  if (way.has(ipc_flag::l2tp_in | ipc_flag::l2tp_out)) {
    const fate r = hold_l2tp_session(skb, in.tunnel, way, &packet->session);
    if (r != fate::forward) return r;
  }
  return plan_wrapping(skb, in, way, &packet->plan);
}

/// Everything that can make the frame go back, once its entry is found, but for the hooks.
fate check_entry(sk_buff* skb, const arrival& in, const ipv4_flow& flow, ipc_entry* entry,
                 routed_packet* packet) {
  if (const fate r = hold_connection(skb, *entry); r != fate::forward) return r;
  if (const fate r = check_record(entry->ct->vok_ext); r != fate::forward) return r;
  if (const fate r = check_tcp_end(entry, flow); r != fate::forward) return r;
  packet->way = passage_of(*entry);
  if (const fate r = check_fragment(flow, packet->way); r != fate::forward) return r;
  return check_passage(skb, in, packet->way, packet);
}

/// A hook may have cut the data or moved it.
fate ask_hooks(sk_buff* skb, const frame& f, const ipv4_flow& flow, const routed_packet& packet) {
  if (const fate r = run_hooks(skb, f, VOK_HOOK_IP_POST_ROUTING); r != fate::forward) return r;
  if (skb_headlen(skb) < flow.end) return fate::hook_cut_frame;
  return skb_headroom(skb) >= packet.plan.growth ? fate::forward : fate::no_headroom;
}

/// The same for a first fragment, which is recorded by now if the fast path takes it: the others
/// may follow on another processor.
fate ask_hooks_for_first(sk_buff* skb, const frame& f, const ipv4_flow& flow,
                         const routed_packet& packet) {
  const auto* ip = header_at<const wire::iphdr>(skb, flow.l3);
  found_frag added;
  if (!add_frag(fragment_key_of(ip), flow.key.sport, flow.key.dport, &added)) {
    return fate::fragments_full;
  }
  const fate result = ask_hooks(skb, f, flow, packet);
  if (result != fate::forward) free_cache(added);
  return result;
}

/// The part under the table's lock. Once the hooks have agreed the frame is the fast path's: it is
/// sent, or lost when its device is down.
fate prepare(vok_handle* ci, sk_buff* skb, const frame& f, const ipv4_flow& flow,
             routed_packet* packet) {
  ipc_entry* entry = find_current_entry(ci, flow.key);
  if (entry == nullptr) return fate::no_entry;
  const arrival in = {f, flow.l3, flow.tunnel};
  if (const fate r = check_entry(skb, in, flow, entry, packet); r != fate::forward) return r;
  const bool record = flow.fragment == fragment_kind::first && !flow.recorded;
  const fate verdict =
      record ? ask_hooks_for_first(skb, f, flow, *packet) : ask_hooks(skb, f, flow, *packet);
  if (verdict != fate::forward) return verdict;

  translate(skb, flow, *entry);
  refresh_timeout(entry->ct, flow.key.proto);
  carry_out(skb, in, packet->way, packet->plan);
  return depart(ci, skb, f, packet->way, entry->ct);
}

}  // namespace

fate forward_routed(vok_handle* ci, sk_buff* skb, const frame& f) {
  if (skb->nfct != nullptr) return fate::already_tracked;
  if (!f.pushed) {
    if (const fate r = run_hooks(skb, f, VOK_HOOK_IP_PRE_ROUTING); r != fate::forward) return r;
  }
  ipv4_flow flow;
  if (const fate r = read_flow(skb, f, &flow); r != fate::forward) return r;

  routed_packet packet;
  spin_lock_bh(ci->ipc_lock);
  const fate result = prepare(ci, skb, f, flow, &packet);
  spin_unlock_bh(ci->ipc_lock);
  if (packet.session != nullptr) l2tp_session_put(packet.session);
  if (result != fate::forward) {
    nf_reset(skb);
    return result;
  }
  count_one(ip_packet);
  send(skb, family::ipv4);
  return fate::forward;
}

}  // namespace tarvelo
