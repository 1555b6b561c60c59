// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/rewrite.h"

#include "kernel/wire/transport.h"
#include "module/forward/checksum.h"
#include "module/forward/frame.h"

namespace tarvelo {
namespace {

/// The two fields of a packet that one translation changes.
struct translated_end {
  wire::be32* address;
  wire::be16* port;
};

/// Source and destination port come first in both transport headers.
[[nodiscard]] translated_end end_to_translate(wire::iphdr* ip, u8* l4, u32 flags) {
  auto* ports = reinterpret_cast<wire::be16*>(l4);
  if ((flags & ipc_flag::snat) != 0) return {&ip->saddr, &ports[0]};
  return {&ip->daddr, &ports[1]};
}

}  // namespace

void translate(sk_buff* skb, const ipv4_flow& flow, const ipc_entry& entry) {
  if ((entry.flags & (ipc_flag::snat | ipc_flag::dnat)) == 0) return;
  auto* ip = header_at<wire::iphdr>(skb, flow.l3);
  u8* l4 = skb->data + flow.l4;
  const translated_end end = end_to_translate(ip, l4, entry.flags);

  const u32 address_change = checksum_change(end.address->raw(), entry.natip);
  ip->check = wire::be16::from_raw(checksum_changed(ip->check.raw(), address_change));
  *end.address = wire::be32::from_raw(entry.natip);
  if (!flow.has_ports()) return;

  // The addresses are part of the pseudo header, so the transport checksum sees both changes.
  const u32 l4_change = address_change + checksum_change(end.port->raw(), entry.natp);
  if (flow.is_tcp()) {
    wire::be16& check = reinterpret_cast<wire::tcphdr*>(l4)->check;
    check = wire::be16::from_raw(checksum_changed(check.raw(), l4_change));
  } else {
    wire::be16& check = reinterpret_cast<wire::udphdr*>(l4)->check;
    check = wire::be16::from_raw(udp_checksum_changed(check.raw(), l4_change));
  }
  *end.port = wire::be16::from_raw(entry.natp);
}

}  // namespace tarvelo
