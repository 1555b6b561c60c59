// SPDX-License-Identifier: GPL-2.0-only
#include "stack/tunnel_packet.h"

#include "kernel/route.h"
#include "stack/ip_output.h"
#include "stack/ip_packet.h"
#include "stack/l2tp.h"
#include "stack/pptp.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

const ppp_session* claimed_session(const sk_buff* skb) noexcept {
  switch (ip_header(skb)->protocol) {
    case wire::ip_protocol::udp:
      return find_l2tp_session(skb);
    case wire::ip_protocol::gre:
      return find_pptp_session(skb);
    default:
      return nullptr;
  }
}

bool is_end_of(const ppp_session& session, const sk_buff* skb) noexcept {
  switch (session.type()) {
    case ppp_channel_type::l2tp:
      return comes_from_l2tp_peer(skb, session.l2tp());
    case ppp_channel_type::pptp:
      return comes_from_pptp_peer(skb, session.pptp());
    default:
      return false;
  }
}

}  // namespace

const ppp_session* session_of_packet(const sk_buff* skb) noexcept {
  const ppp_session* session = claimed_session(skb);
  if (session == nullptr) return nullptr;
  const bool came_out_of_a_tunnel = session_of(skb->dev) != nullptr;
  return came_out_of_a_tunnel && skb->dev != session->lower ? nullptr : session;
}

bool is_between_tunnel_ends(const sk_buff* skb) noexcept {
  for (const auto& session : core().ppp.all()) {
    if (is_end_of(*session, skb)) return true;
  }
  return false;
}

receive_verdict input_tunnel_packet(sk_buff* skb, const ppp_session& session) {
  return session.type() == ppp_channel_type::l2tp ? input_l2tp(skb, session)
                                                  : input_pptp(skb, session);
}

receive_verdict send_tunnel_packet(sk_buff* skb, const outer_header& header) {
  auto* ip = reinterpret_cast<wire::iphdr*>(skb_push(skb, wire::ipv4_min_length));
  *ip = {};
  ip->version_ihl = 0x45;
  ip->tos = header.tos;
  ip->tot_len = wire::be16(static_cast<u16>(skb->len));
  // Without an identification: it is not to be fragmented (RFC 6864).
  ip->frag_off = wire::be16(wire::ip_frag::dont_fragment);
  ip->ttl = header.ttl;
  ip->protocol = header.protocol;
  ip->saddr = wire::be32::from_raw(header.local);
  ip->daddr = wire::be32::from_raw(header.remote);
  ip_send_check(ip);
  mark_ip_packet(skb);
  // The router's own: no error is to be sent about it to the router.
  skb->rx_dev = nullptr;
  return send_own_packet(skb);
}

}  // namespace tarvelo::stack
