// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/routed.h"

#include "module/forward/ipv4_flow.h"
#include "module/forward/ipv4_fragment.h"
#include "module/forward/rewrite.h"
#include "module/forward/routed_path.h"

namespace tarvelo {
namespace {

struct ipv4_path {
  using connections = ipv4_connections;
  using flow = ipv4_flow;
  using fragments = ipv4_fragments;
  static constexpr family ip = family::ipv4;
  static constexpr u32& sent = ip_packet;

  static fate admit(const sk_buff*, const frame&) { return fate::forward; }
  static fate read(const sk_buff* skb, const frame& f, ipv4_flow* flow) {
    return read_flow(skb, f, flow);
  }
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

}  // namespace

fate forward_routed(vok_handle* ci, sk_buff* skb, const frame& f) {
  return routed_path<ipv4_path>::forward(ci, skb, f);
}

}  // namespace tarvelo
