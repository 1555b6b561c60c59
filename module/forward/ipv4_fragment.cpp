// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/ipv4_fragment.h"

namespace tarvelo {

fate find_fragment_ports(const wire::iphdr* ip, fragment_kind kind, u16* sport, u16* dport) {
  found_frag found;
  if (!find_frag(fragment_key_of(ip), &found)) return fate::fragment;
  if (kind == fragment_kind::last) free_cache(found);
  *sport = found.sport;
  *dport = found.dport;
  return fate::forward;
}

fate look_for_record(const wire::iphdr* ip, u16 sport, u16 dport, bool* known) {
  found_frag found;
  *known = find_frag(fragment_key_of(ip), &found);
  const bool other_datagram = *known && (found.sport != sport || found.dport != dport);
  return other_datagram ? fate::fragment : fate::forward;
}

}  // namespace tarvelo
