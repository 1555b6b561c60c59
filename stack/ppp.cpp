// SPDX-License-Identifier: GPL-2.0-only
#include "stack/ppp.h"

#include "kernel/route.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/ppp.h"
#include "stack/frame_priority.h"
#include "stack/ip_input.h"
#include "stack/ipv6_input.h"
#include "stack/l2tp.h"
#include "stack/pppoe.h"
#include "stack/pptp.h"
#include "stack/stack_core.h"
#include "stack/stack_lock.h"

namespace tarvelo::stack {

namespace {

/// Sends by the session's channel.
receive_verdict send_by_channel(sk_buff* skb, const ppp_session& session) {
  // Tunnels in tunnels can ask for more than any one of them.
  const u32 needed = encapsulation_length(session) + wire::tagged_ethernet_length;
  if (skb_headroom(skb) < needed) return discard(skb);
  start_anew(skb);
  note_wrapped(skb, session.type());
  switch (session.type()) {
    case ppp_channel_type::pppoe:
      return send_by_pppoe(skb, session.pppoe());
    case ppp_channel_type::l2tp:
      return send_by_l2tp(skb, session.l2tp());
    case ppp_channel_type::pptp:
      return send_by_pptp(skb, &session.pptp());
    case ppp_channel_type::none:
      break;
  }
  return discard(skb);
}

/// The fast path sends without a lock. A session frame needs none, but the way of a tunnel's packet
/// through the router does. The packet is taken in any case, whatever becomes of it outside.
int start_xmit(sk_buff* skb, net_device* dev) {
  const ppp_session& session = *session_of(dev);
  keep_priority(skb);
  if (session.type() == ppp_channel_type::pppoe) {
    static_cast<void>(send_by_channel(skb, session));
    return NETDEV_TX_OK;
  }
  const stack_guard guard;
  static_cast<void>(send_by_channel(skb, session));
  return NETDEV_TX_OK;
}

}  // namespace

receive_verdict input_ppp_payload(sk_buff* skb, const ppp_session& session, u16 protocol) {
  if ((read_once(session.dev->flags) & IFF_UP) == 0) return discard(skb);
  start_anew(skb);
  note_unwrapped(skb, session.type());
  skb->dev = session.dev;
  skb->rx_dev = session.dev;
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  switch (protocol) {
    case wire::ppp_protocol::ipv4:
      ppp_rxstats_upd(session.dev, skb);
      return input_ip_packet(skb);
    case wire::ppp_protocol::ipv6:
      ppp_rxstats_upd(session.dev, skb);
      return input_ipv6_packet(skb);
    default:
      return discard(skb);
  }
}

receive_verdict input_ppp_frame(sk_buff* skb, const ppp_session& session) {
  const wire::ppp_framing framing = wire::read_ppp_framing(skb->data, skb_headlen(skb));
  if (framing.length == 0) return discard(skb);
  skb_pull(skb, framing.length);
  return input_ppp_payload(skb, session, framing.protocol);
}

receive_verdict output_ppp(sk_buff* skb) {
  net_device* dev = skb->dev;
  if ((read_once(dev->flags) & IFF_UP) == 0) return discard(skb);
  const u32 length = skb->len;
  const receive_verdict sent = send_by_channel(skb, *session_of(dev));
  if (sent == receive_verdict::slow) dev_count_tx(dev, length);
  return sent;
}

const net_device_ops* ppp_device_ops() noexcept {
  static constexpr net_device_ops operations{.ndo_start_xmit = &start_xmit};
  return &operations;
}

void start_anew(sk_buff* skb) noexcept {
  skb->fast_flags = 0;
  nf_reset(skb);
  skb_dst_drop(skb);
}

u16 ppp_protocol_of(const sk_buff* skb) noexcept {
  return skb->protocol == wire::htons(wire::ethertype::ipv6) ? wire::ppp_protocol::ipv6
                                                             : wire::ppp_protocol::ipv4;
}

}  // namespace tarvelo::stack
