// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/build_pptp.h"

#include "kernel/wire/ip.h"
#include "module/forward/frame.h"
#include "module/forward/outer_ipv4.h"
#include "module/forward/transmit.h"

namespace tarvelo {
namespace {

constexpr u8 outer_ttl = 64;
constexpr u8 outer_tos = 0;

[[nodiscard]] constexpr u32 gre_length(bool acknowledges) {
  return acknowledges ? wire::pptp_gre_max_length : wire::pptp_gre_data_length;
}

void build_gre(sk_buff* skb, u32 at, pptp_params* call, bool acknowledges) {
  auto* gre = header_at<wire::pptp_gre_hdr>(skb, at);
  gre->flags = wire::gre_flag::pptp_data;
  gre->version = wire::gre_version::pptp;
  gre->protocol = wire::be16(wire::gre_protocol_ppp);
  gre->payload_len = wire::be16(static_cast<u16>(skb->len - at - gre_length(acknowledges)));
  gre->call_id = wire::be16::from_raw(call->peer_call_id);
  gre->numbers[0] = wire::be32(pptp_next_seq(call));
  if (!acknowledges) return;
  u32 ack = 0;
  // Another processor may have sent the same number meanwhile; twice does no harm.
  (void)pptp_take_ack(call, &ack);
  gre->version |= wire::gre_version::acknowledgement;
  gre->numbers[1] = wire::be32(ack);
}

}  // namespace

u32 pptp_stack_length(const pptp_params* call, bool acknowledges) {
  return wire::ipv4_min_length + gre_length(acknowledges) +
         wire::ppp_framing_length(pptp_ppp_omissions(call));
}

void build_pptp(sk_buff* skb, u32 at, pptp_params* call, bool acknowledges) {
  const u32 gre = at + wire::ipv4_min_length;
  const u32 ppp = gre + gre_length(acknowledges);
  wire::write_ppp_framing(skb->data + ppp, wire::ppp_protocol::ipv4, pptp_ppp_omissions(call));
  build_gre(skb, gre, call, acknowledges);
  vok_skb_reset_transport_header(skb, skb->data + gre);
  build_outer_ipv4(skb, at,
                   {call->local_ip, call->remote_ip, wire::ip_protocol::gre, outer_tos, outer_ttl});
}

}  // namespace tarvelo
