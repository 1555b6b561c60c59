// SPDX-License-Identifier: GPL-2.0-only
//
// The fragments of an IPv4 datagram on the packet path. Only the first has a transport header; it
// is recorded when it is forwarded, so that the others find their ports. The last one takes the
// record away.
//
// A fragment that overtakes the first, or whose datagram was never recorded, goes to the stack.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/ip.h"
#include "module/forward/fate.h"
#include "module/fragcache/ipv4.h"

namespace tarvelo {

enum class fragment_kind : u8 {
  none,
  first,
  middle,
  last,
};

[[nodiscard]] constexpr fragment_kind fragment_kind_of(const wire::iphdr* ip) {
  const u16 offset_and_more =
      ip->frag_off.host() & (wire::ip_frag::more_fragments | wire::ip_frag::offset_mask);
  if (offset_and_more == 0) return fragment_kind::none;
  if (offset_and_more == wire::ip_frag::more_fragments) return fragment_kind::first;
  return offset_and_more < wire::ip_frag::more_fragments ? fragment_kind::last
                                                         : fragment_kind::middle;
}

[[nodiscard]] inline frag_key fragment_key_of(const wire::iphdr* ip) {
  return {ip->id.raw(), ip->protocol, ip->saddr.raw(), ip->daddr.raw()};
}

/// The ports of a middle or last fragment, in network byte order; a last one takes the record away.
/// Softirq context.
fate find_fragment_ports(const wire::iphdr* ip, fragment_kind kind, u16* sport, u16* dport);

/// For a first fragment with these ports: `*known` tells whether it is recorded already. A record
/// with other ports is another datagram's, with which its fragments would be mixed up.
fate look_for_record(const wire::iphdr* ip, u16 sport, u16 dport, bool* known);

}  // namespace tarvelo
