// SPDX-License-Identifier: GPL-2.0-only
//
// Which flow a packet belongs to and where its headers are, parsed once; the same for both families
// but for the key. With a tunnel the packet inside is the one that is matched and changed:
// everything here is then about the inner one.
//
// Everything is checked against the linear length before it is read, and against the lengths that
// the headers claim.
#pragma once

#include "kernel/wire/ip.h"
#include "kernel/wire/transport.h"
#include "module/forward/fate.h"
#include "module/forward/fragment.h"
#include "module/forward/frame.h"
#include "module/forward/tunnel.h"

namespace tarvelo {

template <typename Key>
struct packet_flow {
  Key key;
  u32 l3;        ///< offset of the packet's IP header from the data
  u32 l4;        ///< offset of what follows the IP headers: the transport header, if there is one
  u32 end;       ///< offset of the first byte that was not looked at
  u8 tcp_flags;  ///< 0 for UDP, and without a transport header
  fragment_kind fragment;
  bool recorded;  ///< a first fragment that the cache knows already
  tunnel_header tunnel;

  [[nodiscard]] bool is_tcp() const { return key.proto == wire::ip_protocol::tcp; }
  [[nodiscard]] bool has_ports() const {
    return fragment == fragment_kind::none || fragment == fragment_kind::first;
  }
};

/// Reads ports and TCP flags at `flow->l4`; `end` is the offset of the first byte that may not be
/// read.
template <typename Flow>
fate read_transport(const sk_buff* skb, u32 end, Flow* flow) {
  const bool tcp = flow->is_tcp();
  flow->end = flow->l4 + (tcp ? u32{sizeof(wire::tcphdr)} : u32{sizeof(wire::udphdr)});
  if (flow->end > end) return fate::truncated;
  if (tcp) {
    flow->tcp_flags = header_at<const wire::tcphdr>(skb, flow->l4)->flags;
    if ((flow->tcp_flags & wire::tcp_flag::syn) != 0) return fate::tcp_syn;
  }
  // Source and destination port come first in both headers.
  const auto* ports = header_at<const wire::be16>(skb, flow->l4);
  flow->key.sport = ports[0].raw();
  flow->key.dport = ports[1].raw();
  return fate::forward;
}

/// Finds out the ports of a packet whose protocol, fragment kind and `l4` are known, from its
/// transport header or from the fragment cache `Fragments`; `id()` is the datagram's key there. A
/// last fragment's record is gone afterwards, whatever becomes of the fragment. Softirq context.
template <typename Fragments, typename Flow, typename Id>
fate read_ports(const sk_buff* skb, u32 end, Id id, Flow* flow) {
  flow->tcp_flags = 0;
  flow->recorded = false;
  if (!flow->has_ports()) {
    flow->end = flow->l4;
    return find_fragment_ports<Fragments>(id(), flow->fragment, &flow->key.sport, &flow->key.dport);
  }
  if (const fate r = read_transport(skb, end, flow); r != fate::forward) return r;
  if (flow->fragment == fragment_kind::none) return fate::forward;
  return look_for_record<Fragments>(id(), flow->key.sport, flow->key.dport, &flow->recorded);
}

}  // namespace tarvelo
