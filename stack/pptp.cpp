// SPDX-License-Identifier: GPL-2.0-only
#include "stack/pptp.h"

#include "stack/ip_packet.h"
#include "stack/ppp.h"
#include "stack/stack_core.h"
#include "stack/tunnel_packet.h"

namespace tarvelo::stack {

namespace {

constexpr u8 outer_tos = 0;
constexpr u8 outer_ttl = 64;

/// The GRE header, of which `available` bytes are there; null when its fixed part is cut short or
/// it is not PPTP's. An acknowledgement alone has no sequence number.
const wire::pptp_gre_hdr* read_gre(const sk_buff* skb, u32* available) noexcept {
  const wire::iphdr* ip = ip_header(skb);
  const u32 at = ip->header_length();
  if (ip->protocol != wire::ip_protocol::gre) return nullptr;
  if (skb_headlen(skb) < at + wire::pptp_gre_base_length) return nullptr;
  *available = skb_headlen(skb) - at;
  const auto* gre = reinterpret_cast<const wire::pptp_gre_hdr*>(skb->data + at);
  const bool keyed = (gre->flags & ~wire::gre_flag::sequence) == wire::gre_flag::key;
  const bool of_pptp =
      (gre->version & ~wire::gre_version::acknowledgement) == wire::gre_version::pptp &&
      gre->protocol.host() == wire::gre_protocol_ppp;
  return keyed && of_pptp ? gre : nullptr;
}

/// Puts the GRE header in front of a PPP frame. Its numbers are taken here, so the packet is as
/// good as sent.
void push_gre_header(sk_buff* skb, pptp_params* params) noexcept {
  const u32 payload = skb->len;
  u32 acknowledgement = 0;
  const bool acknowledges = pptp_take_ack(params, &acknowledgement);
  auto* gre = reinterpret_cast<wire::pptp_gre_hdr*>(
      skb_push(skb, acknowledges ? wire::pptp_gre_max_length : wire::pptp_gre_data_length));
  gre->flags = wire::gre_flag::pptp_data;
  gre->version = wire::gre_version::pptp;
  gre->protocol = wire::be16(wire::gre_protocol_ppp);
  gre->payload_len = wire::be16(static_cast<u16>(payload));
  gre->call_id = wire::be16::from_raw(params->peer_call_id);
  gre->numbers[0] = wire::be32(pptp_next_seq(params));
  if (!acknowledges) return;
  gre->version |= wire::gre_version::acknowledgement;
  gre->numbers[1] = wire::be32(acknowledgement);
}

}  // namespace

bool comes_from_pptp_peer(const sk_buff* skb, const pptp_params& params) noexcept {
  const wire::iphdr* ip = ip_header(skb);
  return ip->protocol == wire::ip_protocol::gre && ip->saddr.raw() == params.remote_ip &&
         ip->daddr.raw() == params.local_ip;
}

const ppp_session* find_pptp_session(const sk_buff* skb) noexcept {
  u32 available = 0;
  const wire::pptp_gre_hdr* gre = read_gre(skb, &available);
  if (gre == nullptr) return nullptr;
  const wire::iphdr* ip = ip_header(skb);
  return core().ppp.find_pptp(ip->daddr, ip->saddr, gre->call_id);
}

receive_verdict input_pptp(sk_buff* skb, const ppp_session& session) {
  u32 available = 0;
  const wire::pptp_gre_hdr* gre = read_gre(skb, &available);
  if (gre == nullptr || available < gre->length()) return discard(skb);
  const u32 header = ip_header(skb)->header_length() + gre->length();
  const u32 payload = gre->payload_len.host();
  if (header + payload > skb->len) return discard(skb);
  pptp_note_received(&session.pptp(), gre);
  if (!gre->has_sequence()) {
    kfree_skb(skb);
    return receive_verdict::slow;
  }
  skb_trim(skb, header + payload);
  skb_pull(skb, header);
  return input_ppp_frame(skb, session);
}

receive_verdict send_by_pptp(sk_buff* skb, pptp_params* params) {
  const u16 protocol = ppp_protocol_of(skb);
  const wire::ppp_omissions omit = pptp_ppp_omissions(params);
  wire::write_ppp_framing(skb_push(skb, wire::ppp_framing_length(omit)), protocol, omit);
  push_gre_header(skb, params);
  return send_tunnel_packet(
      skb, {params->local_ip, params->remote_ip, wire::ip_protocol::gre, outer_tos, outer_ttl});
}

}  // namespace tarvelo::stack
