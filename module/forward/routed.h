// SPDX-License-Identifier: GPL-2.0-only
//
// The routed path of IPv4: a packet of a cached connection is translated and leaves by the
// connection's output device. The path itself is routed_path.h.
#pragma once

#include "module/core/handle.h"
#include "module/forward/ipv4_flow.h"
#include "module/forward/ipv4_fragment.h"
#include "module/forward/plain_ipv4.h"
#include "module/forward/rewrite.h"
#include "module/forward/routed_path.h"

namespace tarvelo {

struct ipv4_path {
  using connections = ipv4_connections;
  using flow = ipv4_flow;
  using fragments = ipv4_fragments;
  static constexpr family ip = family::ipv4;
  static constexpr u32& sent = ip_packet;

  static fate admit(const sk_buff*, frame) { return fate::forward; }
  static fate read(const sk_buff* skb, frame f, ipv4_flow* flow) { return read_flow(skb, f, flow); }
  static frag_key fragment_id(const sk_buff* skb, const ipv4_flow& flow) {
    return fragment_key_of(header_at<const wire::iphdr>(skb, flow.l3));
  }
  static bool is_current(const ipc_entry& entry) { return !older_than_bridge_entry(entry); }
  static fate check_record(const vok_ct_ext& ext) {
    return read_once(ext.double_nat) == 0 ? fate::forward : fate::double_nat;
  }
  static void rewrite(sk_buff* skb, const ipv4_flow& flow, const ipc_entry& entry) {
    translate(skb, flow, entry);
  }
  static u32 established_timeout(u8 protocol) { return nf_ct_established_timeout(protocol); }
};

/// Forwards an IPv4 frame of a cached connection, or says why not; softirq context. On any result
/// but `fate::forward` the buffer is the caller's and carries no connection of this call.
fate forward_routed(vok_handle* ci, sk_buff* skb, const frame& f);

/// The same for a frame of which plain_ipv4::is_plain() holds.
inline fate forward_routed_plain(vok_handle* ci, sk_buff* skb, frame f) {
  // A hook may change the packet, so that it has to be looked at anew.
  if (has_hooks(hook_list(family::ipv4, VOK_HOOK_IP_PRE_ROUTING))) [[unlikely]]
    return forward_routed(ci, skb, frame(f));
  return routed_path<ipv4_path>::forward_read(ci, skb, f, plain_ipv4::flow_of(skb));
}

}  // namespace tarvelo
