// SPDX-License-Identifier: GPL-2.0-only
//
// The fragments of a datagram on the packet path. Only the first has a transport header; it is
// recorded when it is forwarded, so that the others find their ports. The last one takes the record
// away.
//
// A fragment that overtakes the first, or whose datagram was never recorded, goes to the stack.
//
// The families keep their records in caches of their own. `Fragments` describes one:
//   key, found                          the cache's types
//   find(key, found), add(key, sport, dport, found), release(found)
#pragma once

#include "kernel/types.h"
#include "module/forward/fate.h"

namespace tarvelo {

enum class fragment_kind : u8 {
  none,
  first,
  middle,
  last,
};

/// The ports of a middle or last fragment, in network byte order; a last one takes the record away.
/// Softirq context.
template <typename Fragments>
fate find_fragment_ports(const typename Fragments::key& id, fragment_kind kind, u16* sport,
                         u16* dport) {
  typename Fragments::found found;
  if (!Fragments::find(id, &found)) return fate::fragment;
  if (kind == fragment_kind::last) Fragments::release(found);
  *sport = found.sport;
  *dport = found.dport;
  return fate::forward;
}

/// For a first fragment with these ports: `*known` tells whether it is recorded already. A record
/// with other ports is another datagram's, with which its fragments would be mixed up.
template <typename Fragments>
fate look_for_record(const typename Fragments::key& id, u16 sport, u16 dport, bool* known) {
  typename Fragments::found found;
  *known = Fragments::find(id, &found);
  const bool other_datagram = *known && (found.sport != sport || found.dport != dport);
  return other_datagram ? fate::fragment : fate::forward;
}

}  // namespace tarvelo
