// SPDX-License-Identifier: GPL-2.0-only
//
// What the IPv6 fragment header says, and the cache that fragmented datagrams are recorded in.
#pragma once

#include "kernel/wire/ip.h"
#include "module/forward/fragment.h"
#include "module/fragcache/ipv6.h"

namespace tarvelo {

/// `none` for a fragment that is the whole datagram.
[[nodiscard]] constexpr fragment_kind fragment_kind_of(const wire::ipv6_frag_hdr* header) {
  const u16 word = header->frag_off.host();
  const bool at_start = (word & wire::ipv6_frag::offset_mask) == 0;
  const bool more = (word & wire::ipv6_frag::more_fragments) != 0;
  if (at_start) return more ? fragment_kind::first : fragment_kind::none;
  return more ? fragment_kind::middle : fragment_kind::last;
}

[[nodiscard]] inline frag_key_v6 fragment_key_of(const wire::ipv6hdr* ip,
                                                 const wire::ipv6_frag_hdr* header) {
  return {header->identification.raw(), ip->saddr, ip->daddr, header->nexthdr};
}

struct ipv6_fragments {
  using key = frag_key_v6;
  using found = found_frag_v6;

  static bool find(const frag_key_v6& id, found_frag_v6* found) {
    return vok_find_frag_v6(id, found);
  }
  static bool add(const frag_key_v6& id, u16 sport, u16 dport, found_frag_v6* added) {
    return vok_add_frag_v6(id, sport, dport, added);
  }
  static void release(const found_frag_v6& found) { vok_free_cache_v6(found); }
};

}  // namespace tarvelo
