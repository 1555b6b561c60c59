// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipv6/forward.h"

#include "module/forward/routed_path.h"
#include "module/ipv6/flow.h"

namespace tarvelo {
namespace {

/// Of TCP and replied UDP alike, whatever tracking is set to: a connection without translation
/// costs nobody a port when it is kept too long.
constexpr u32 long_timeout = 180 * HZ;

struct ipv6_path {
  using connections = ipv6_connections;
  using flow = ipv6_flow;
  using fragments = ipv6_fragments;
  static constexpr family ip = family::ipv6;
  static constexpr u32& sent = ip_v6_packet;

  /// What is not for a router is not even counted.
  static fate admit(const sk_buff* skb, frame f) {
    if (skb_headlen(skb) < f.l3 + wire::ipv6_length) return fate::truncated;
    const auto* header = header_at<const wire::ipv6hdr>(skb, f.l3);
    if (const fate r = check_addresses(header); r != fate::forward) return r;
    count_one(ethernet_v6_packet);
    return fate::forward;
  }
  static fate read(const sk_buff* skb, frame f, ipv6_flow* flow) { return read_flow(skb, f, flow); }
  static frag_key_v6 fragment_id(const sk_buff* skb, const ipv6_flow& flow) {
    return fragment_id_of(skb, flow);
  }
  /// An entry does not follow its host behind a bridge: the kernel ends it when the host moves.
  static bool is_current(const ipc_v6_entry&) { return true; }
  static fate check_record(const vok_ct_ext&) { return fate::forward; }
  static void rewrite(sk_buff*, const ipv6_flow&, const ipc_v6_entry&) {}
  static u32 established_timeout(u8) { return long_timeout; }
};

}  // namespace

fate _vok_forward_v6(vok_handle* ci, sk_buff* skb, const frame& f) {
  return routed_path<ipv6_path>::forward(ci, skb, f);
}

}  // namespace tarvelo
