// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/outer_ipv4.h"

#include "kernel/route.h"
#include "kernel/wire/ip.h"
#include "module/forward/frame.h"

namespace tarvelo {
namespace {

constexpr u8 version_4_no_options = 0x45;

}  // namespace

void build_outer_ipv4(sk_buff* skb, u32 at, const outer_ipv4& outer) {
  auto* ip = header_at<wire::iphdr>(skb, at);
  ip->version_ihl = version_4_no_options;
  ip->tos = outer.tos;
  ip->tot_len = wire::be16(static_cast<u16>(skb->len - at));
  ip->id = wire::be16(0);
  ip->frag_off = wire::be16(wire::ip_frag::dont_fragment);
  ip->ttl = outer.ttl;
  ip->protocol = outer.protocol;
  ip->saddr = wire::be32::from_raw(outer.saddr);
  ip->daddr = wire::be32::from_raw(outer.daddr);
  ip_send_check(ip);
}

}  // namespace tarvelo
