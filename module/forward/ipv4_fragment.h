// SPDX-License-Identifier: GPL-2.0-only
//
// What IPv4 headers say about fragments, and the cache that their datagrams are recorded in.
#pragma once

#include "kernel/wire/ip.h"
#include "module/forward/fragment.h"
#include "module/fragcache/ipv4.h"

namespace tarvelo {

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

struct ipv4_fragments {
  using key = frag_key;
  using found = found_frag;

  static bool find(const frag_key& id, found_frag* found) { return find_frag(id, found); }
  static bool add(const frag_key& id, u16 sport, u16 dport, found_frag* added) {
    return add_frag(id, sport, dport, added);
  }
  static void release(const found_frag& found) { free_cache(found); }
};

}  // namespace tarvelo
