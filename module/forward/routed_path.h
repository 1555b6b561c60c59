// SPDX-License-Identifier: GPL-2.0-only
//
// The routed path, written once for both families: find the packet's connection, check that frame,
// entry and kernel objects agree, ask the hooks, rewrite, let go of the lock, send.
//
// The table's lock is taken once and held from the chain walk until the frame is complete, so that
// neither the entry nor what it points at can go away in between; it is free again before the
// driver is called and before any reference is dropped. Until the last test has passed, nothing of
// the frame is changed.
//
// `Path` describes a family:
//   connections                  its table, as connection_table takes it
//   flow                         what read() fills in, a packet_flow
//   fragments                    its fragment cache, see fragment.h
//   ip                           its `family`
//   sent                         reference to the counter of packets handed to transmit
//   admit(skb, f)                tests ahead of the hooks; the header is not checked yet
//   read(skb, f, flow)           the packet's flow
//   fragment_id(skb, flow)       the key of a fragment's datagram
//   is_current(entry)            false for an entry that may lead to the wrong place by now
//   check_record(ext)            what the family demands of the connection's record
//   rewrite(skb, flow, entry)    changes to the packet itself
//   established_timeout(proto)   of TCP and replied UDP, in jiffies
#pragma once

#include "kernel/atomic.h"
#include "kernel/jiffies.h"
#include "kernel/nf_conntrack.h"
#include "kernel/wire/transport.h"
#include "module/core/connection_table.h"
#include "module/core/counters.h"
#include "module/forward/build_l2tp.h"
#include "module/forward/depart.h"
#include "module/forward/encapsulation.h"
#include "module/forward/flow.h"
#include "module/forward/hooks.h"
#include "module/forward/transmit.h"

namespace tarvelo {

/// Calls of the add operation that a connection must have had. Fewer packets than these gain
/// nothing from the fast path, and tracking and its helpers have seen the beginning whole.
inline constexpr u32 ripe_after_adds = 20;

inline constexpr u32 unreplied_udp_timeout = 30 * HZ;
inline constexpr u32 least_timer_movement = HZ;

template <typename Path>
class routed_path {
  using connections = typename Path::connections;
  using entry_type = typename connections::entry;
  using flow_type = typename Path::flow;
  using fragments = typename Path::fragments;

 public:
  /// Forwards a frame of a cached connection, or says why not; softirq context. On any result but
  /// `fate::forward` the buffer is the caller's and carries no connection of this call.
  static fate forward(vok_handle* ci, sk_buff* skb, frame f) {
    if (skb->nfct != nullptr) return fate::already_tracked;
    if (const fate r = Path::admit(skb, f); r != fate::forward) return r;
    if (!f.pushed) {
      if (const fate r = run_hooks(skb, f, VOK_HOOK_IP_PRE_ROUTING, Path::ip); r != fate::forward)
        return r;
    }
    flow_type flow;
    if (const fate r = Path::read(skb, f, &flow); r != fate::forward) return r;
    return forward_flow(ci, skb, f, flow);
  }

  /// The same for a frame whose flow is known, with nothing left to do before its entry is looked
  /// for.
  static fate forward_read(vok_handle* ci, sk_buff* skb, frame f, const flow_type& flow) {
    if (skb->nfct != nullptr) return fate::already_tracked;
    return forward_flow(ci, skb, f, flow);
  }

 private:
  static fate forward_flow(vok_handle* ci, sk_buff* skb, frame f, const flow_type& flow) {
    l2tp_session* session = nullptr;  // one reference held, or null
    spin_lock_bh(connections::lock(ci));
    const fate result = prepare(ci, skb, f, flow, &session);
    spin_unlock_bh(connections::lock(ci));
    if (session != nullptr) [[unlikely]]
      l2tp_session_put(session);
    if (result != fate::forward) {
      nf_reset(skb);
      return result;
    }
    count_one(Path::sent);
    send(skb, Path::ip);
    return fate::forward;
  }

  /// The part under the table's lock. Once the hooks have agreed the frame is the fast path's: it
  /// is sent, or lost when its device is down.
  static fate prepare(vok_handle* ci, sk_buff* skb, frame f, const flow_type& flow,
                      l2tp_session** session) {
    entry_type* entry = find_current_entry(ci, flow);
    if (entry == nullptr) return fate::no_entry;
    if (const fate r = check_connection(skb, flow, entry); r != fate::forward) return r;
    if (!is_plain(f, flow.tunnel.kind, *entry)) [[unlikely]] {
      return prepare_wrapped(ci, skb, {f, flow.l3, flow.tunnel}, flow_type(flow), entry, session);
    }
    if (const fate r = check_plain_length(skb, flow.l3, *entry); r != fate::forward) return r;
    if (const fate r = ask_hooks(skb, f, flow, 0); r != fate::forward) return r;

    change_packet(skb, flow, *entry);
    skb_pull(skb, flow.l3 - wire::ethernet_length);
    label(skb, *entry, entry->sendif, wire::ethernet_length);
    return depart(ci, skb, f, *entry);
  }

  /// The same, from where they differ, for a frame that comes in or leaves in more than Ethernet.
  [[gnu::noinline]] static fate prepare_wrapped(vok_handle* ci, sk_buff* skb, const arrival& in,
                                                const flow_type& flow, entry_type* entry,
                                                l2tp_session** session) {
    const passage way = passage_of(*entry);
    if (const fate r = check_fragment(flow, way); r != fate::forward) return r;
    wrapping_plan plan;
    if (const fate r = check_passage(skb, in, way, session, &plan); r != fate::forward) return r;
    if (const fate r = ask_hooks(skb, in.link, flow, plan.growth); r != fate::forward) return r;

    change_packet(skb, flow, *entry);
    const u32 network = rewrap(skb, in, way, plan);
    label(skb, *entry, skb->dev, network);
    return depart(ci, skb, in.link, *entry);
  }

  static void change_packet(sk_buff* skb, const flow_type& flow, const entry_type& entry) {
    Path::rewrite(skb, flow, entry);
    refresh_timeout(entry.ct, flow.key.proto);
  }

  [[nodiscard]] static entry_type* find_current_entry(vok_handle* ci, const flow_type& flow) {
    entry_type** link = connection_table<connections>::find(ci, flow.key);
    return link != nullptr && Path::is_current(**link) ? *link : nullptr;
  }

  static fate check_connection(sk_buff* skb, const flow_type& flow, entry_type* entry) {
    if (const fate r = hold_connection(skb, *entry); r != fate::forward) return r;
    if (const fate r = check_record(entry->ct->vok_ext); r != fate::forward) return r;
    return check_tcp_end(entry, flow);
  }

  /// Gives the buffer a reference on the entry's connection, unless that is ending.
  static fate hold_connection(sk_buff* skb, const entry_type& entry) {
    nf_conn* ct = entry.ct;
    if (ct == nullptr) return fate::connection_gone;
    const u32 state = read_once(ct->status) & (IPS_CONFIRMED | IPS_DYING);
    if (state != IPS_CONFIRMED) return fate::connection_gone;
    if (!atomic_inc_not_zero(&ct->ct_general.use)) return fate::connection_gone;
    skb->nfct = &ct->ct_general;
    return fate::forward;
  }

  static fate check_record(const vok_ct_ext* ext) {
    if (ext == nullptr) return fate::no_record;
    if (const fate r = Path::check_record(*ext); r != fate::forward) return r;
    return read_once(ext->add_calls) >= ripe_after_adds ? fate::forward : fate::not_ripe;
  }

  /// The end of a TCP connection is tracking's business, and so is all that comes after its start.
  static fate check_tcp_end(entry_type* entry, const flow_type& flow) {
    if ((flow.tcp_flags & (wire::tcp_flag::fin | wire::tcp_flag::rst)) != 0) {
      entry->flags |= ipc_flag::tcp_closing;
    }
    return (entry->flags & ipc_flag::tcp_closing) == 0 ? fate::forward : fate::tcp_ending;
  }

  /// A fragment cannot be put into a session or tunnel: the others of its datagram would be too
  /// long or have nowhere to go.
  static fate check_fragment(const flow_type& flow, const passage& way) {
    const bool whole = flow.fragment == fragment_kind::none;
    return whole || !way.has(ipc_mode::built) ? fate::forward : fate::fragment;
  }

  /// Frame, entry and session agree, and what the frame becomes has room.
  static fate check_passage(sk_buff* skb, const arrival& in, const passage& way,
                            l2tp_session** session, wrapping_plan* plan) {
    if (const fate r = check_arrival(skb, in, way); r != fate::forward) return r;
    if (way.has(ipc_flag::l2tp_in | ipc_flag::l2tp_out)) {
      const fate r = hold_l2tp_session(skb, in.tunnel, way, session);
      if (r != fate::forward) return r;
    }
    return plan_wrapping(skb, in, way, plan);
  }

  /// A first fragment is recorded by now if the fast path takes it: the others may follow on
  /// another processor. `growth` is the headroom that the frame needs.
  static fate ask_hooks(sk_buff* skb, frame f, const flow_type& flow, u32 growth) {
    if (flow.fragment != fragment_kind::first || flow.recorded) {
      return ask_all_hooks(skb, f, flow, growth);
    }
    typename fragments::found added;
    if (!fragments::add(Path::fragment_id(skb, flow), flow.key.sport, flow.key.dport, &added)) {
      return fate::fragments_full;
    }
    const fate result = ask_all_hooks(skb, f, flow, growth);
    if (result != fate::forward) fragments::release(added);
    return result;
  }

  static fate ask_all_hooks(sk_buff* skb, frame f, const flow_type& flow, u32 growth) {
    if (!has_hooks(hook_list(Path::ip, VOK_HOOK_IP_POST_ROUTING))) [[likely]]
      return fate::forward;
    const fate verdict = run_listed_hooks(skb, frame(f), VOK_HOOK_IP_POST_ROUTING);
    if (verdict != fate::forward) return verdict;
    // A hook may have cut the data or moved it.
    if (skb_headlen(skb) < flow.end) return fate::hook_cut_frame;
    return skb_headroom(skb) >= growth ? fate::forward : fate::no_headroom;
  }

  /// Keeps the connection alive, as tracking would for a packet that it sees. The timer is touched
  /// only when its expiry moves by a second or more, and never revived.
  static void refresh_timeout(nf_conn* ct, u8 protocol) {
    const bool established =
        protocol == wire::ip_protocol::tcp || (read_once(ct->status) & IPS_SEEN_REPLY) != 0;
    const u32 due = nf_ct_expires(ct);
    const u32 timeout = established ? Path::established_timeout(protocol) : unreplied_udp_timeout;
    const u32 expires = jiffies + timeout;
    if (expires - due >= least_timer_movement) nf_ct_refresh_pending(ct, expires);
  }
};

}  // namespace tarvelo
