// SPDX-License-Identifier: GPL-2.0-only
//
// What changes in a routed IPv4 packet: one address and port with their checksums. TTL and TOS are
// left alone: to both ends the fast path is not there. A later fragment has no port to change and
// no transport checksum.
//
// All of it runs after the last test, under the connection table's lock, and cannot fail.
#pragma once

#include "kernel/skbuff.h"
#include "kernel/wire/transport.h"
#include "module/forward/checksum.h"
#include "module/forward/frame.h"
#include "module/forward/ipv4_flow.h"
#include "tarvelo/ipc_entry.h"

namespace tarvelo {

/// The two fields of a packet that one translation changes.
struct translated_end {
  wire::be32* address;
  wire::be16* port;
};

/// Source and destination port come first in both transport headers.
[[nodiscard]] inline translated_end end_to_translate(wire::iphdr* ip, u8* l4, u32 flags) {
  auto* ports = reinterpret_cast<wire::be16*>(l4);
  if ((flags & ipc_flag::snat) != 0) return {&ip->saddr, &ports[0]};
  return {&ip->daddr, &ports[1]};
}

/// Applies the entry's translation; an entry that says both ends translates the source only.
inline void translate(sk_buff* skb, const ipv4_flow& flow, const ipc_entry& entry) {
  if ((entry.flags & (ipc_flag::snat | ipc_flag::dnat)) == 0) return;
  auto* ip = header_at<wire::iphdr>(skb, flow.l3);
  u8* l4 = skb->data + flow.l4;
  const translated_end end = end_to_translate(ip, l4, entry.flags);

  const u32 address = entry.natip;
  const u32 address_change = checksum_change(end.address->raw(), address);
  ip->check = wire::be16::from_raw(checksum_changed(ip->check.raw(), address_change));
  *end.address = wire::be32::from_raw(address);
  if (!flow.has_ports()) return;

  // The addresses are part of the pseudo header, so the transport checksum sees both changes.
  const u16 port = entry.natp;
  const u32 l4_change = address_change + checksum_change_16(end.port->raw(), port);
  if (flow.is_tcp()) {
    wire::be16& check = reinterpret_cast<wire::tcphdr*>(l4)->check;
    check = wire::be16::from_raw(checksum_changed(check.raw(), l4_change));
  } else {
    wire::be16& check = reinterpret_cast<wire::udphdr*>(l4)->check;
    check = wire::be16::from_raw(udp_checksum_changed(check.raw(), l4_change));
  }
  *end.port = wire::be16::from_raw(port);
}

}  // namespace tarvelo
