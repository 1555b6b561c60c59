// SPDX-License-Identifier: GPL-2.0-only
#include "stack/l2tp.h"

#include "kernel/wire/ppp.h"
#include "kernel/wire/transport.h"
#include "stack/checksum.h"
#include "stack/ip_packet.h"
#include "stack/ppp.h"
#include "stack/stack_core.h"
#include "stack/tunnel_packet.h"

namespace tarvelo::stack {

namespace {

constexpr u32 udp_length = sizeof(wire::udphdr);
constexpr u32 first_word_length = sizeof(wire::be16);

/// The headers of a datagram as far as they are there; a header that is not is null.
struct l2tp_datagram {
  const wire::udphdr* udp;
  const wire::be16* first_word;  ///< of the L2TP header
  u32 message;                   ///< offset of the L2TP header

  [[nodiscard]] u16 flags() const noexcept { return first_word->host(); }
};

l2tp_datagram read_datagram(const sk_buff* skb) noexcept {
  const wire::iphdr* ip = ip_header(skb);
  const u32 at = ip->header_length();
  if (ip->protocol != wire::ip_protocol::udp || skb_headlen(skb) < at + udp_length) return {};
  const auto* udp = reinterpret_cast<const wire::udphdr*>(skb->data + at);
  const u32 message = at + udp_length;
  if (skb_headlen(skb) < message + first_word_length) return {udp, nullptr, message};
  return {udp, reinterpret_cast<const wire::be16*>(skb->data + message), message};
}

/// Cuts the buffer to the datagram and checks its sum.
bool datagram_is_sound(sk_buff* skb, const l2tp_datagram& datagram) noexcept {
  const u32 at = datagram.message - udp_length;
  const u32 length = datagram.udp->len.host();
  if (length < udp_length || at + length > skb->len) return false;
  skb_trim(skb, at + length);
  if (datagram.udp->check.raw() == 0) return true;
  const wire::iphdr* ip = ip_header(skb);
  const u32 pseudo = pseudo_header_sum(ip->saddr.raw(), ip->daddr.raw(), wire::ip_protocol::udp,
                                       static_cast<u16>(length));
  return checksum_holds(datagram.udp, length, pseudo);
}

/// Cuts the buffer to the message, if that says how long it is.
bool message_is_sound(sk_buff* skb, const l2tp_datagram& datagram) noexcept {
  const u32 header = wire::l2tp_header_length(datagram.flags());
  if (skb->len < datagram.message + header) return false;
  if ((datagram.flags() & wire::l2tp_flag::length) == 0) return true;
  const u32 length = datagram.first_word[1].host();
  if (length < header || datagram.message + length > skb->len) return false;
  skb_trim(skb, datagram.message + length);
  return true;
}

void write_l2tp_header(u8* to, l2tp_session* session) noexcept {
  auto* header = reinterpret_cast<wire::l2tp_data_hdr*>(to);
  u16 flags = wire::l2tp_flag::version;
  if (session->send_seq != 0) {
    flags |= wire::l2tp_flag::sequence;
    header->ns = wire::be16(l2tp_session_next_ns(session));
    header->nr = wire::be16(0);  // only of control messages
  }
  header->flags = wire::be16(flags);
  header->tunnel_id = wire::be16(session->tunnel->peer_tunnel_id);
  header->session_id = wire::be16(session->peer_session_id);
}

}  // namespace

bool comes_from_l2tp_peer(const sk_buff* skb, const l2tp_params& params) noexcept {
  const wire::udphdr* udp = read_datagram(skb).udp;
  if (udp == nullptr) return false;
  const wire::iphdr* ip = ip_header(skb);
  return ip->saddr.raw() == params.remote_ip && ip->daddr.raw() == params.local_ip &&
         udp->source.raw() == params.remote_port && udp->dest.raw() == params.local_port;
}

const ppp_session* find_l2tp_session(const sk_buff* skb) noexcept {
  const l2tp_datagram datagram = read_datagram(skb);
  if (datagram.first_word == nullptr || !wire::l2tp_is_data(datagram.flags())) return nullptr;
  const u32 at = datagram.message + wire::l2tp_ids_offset(datagram.flags());
  if (skb_headlen(skb) < at + sizeof(wire::l2tp_ids)) return nullptr;
  const auto* ids = reinterpret_cast<const wire::l2tp_ids*>(skb->data + at);
  const ppp_session* session = core().ppp.find_l2tp(ids->tunnel_id, ids->session_id);
  if (session == nullptr || !comes_from_l2tp_peer(skb, session->l2tp())) return nullptr;
  return session;
}

receive_verdict input_l2tp(sk_buff* skb, const ppp_session& session) {
  const l2tp_datagram datagram = read_datagram(skb);
  if (datagram.first_word == nullptr || !datagram_is_sound(skb, datagram)) return discard(skb);
  if (!message_is_sound(skb, datagram)) return discard(skb);
  if ((datagram.flags() & wire::l2tp_flag::sequence) != 0) {
    l2tp_session_count_nr(session.l2tp().l2tp_session);
  }
  skb_pull(skb, datagram.message + wire::l2tp_header_length(datagram.flags()));
  return input_ppp_frame(skb, session);
}

receive_verdict send_by_l2tp(sk_buff* skb, const l2tp_params& params) {
  l2tp_session* session = params.l2tp_session;
  if (l2tp_session_closing(session)) return discard(skb);
  const u16 protocol = ppp_protocol_of(skb);
  wire::write_ppp_framing(skb_push(skb, wire::ppp_max_length), protocol, {});
  write_l2tp_header(skb_push(skb, session->hdr_len), session);

  auto* udp = reinterpret_cast<wire::udphdr*>(skb_push(skb, udp_length));
  udp->source = wire::be16::from_raw(params.local_port);
  udp->dest = wire::be16::from_raw(params.remote_port);
  udp->len = wire::be16(static_cast<u16>(skb->len));
  udp->check = wire::be16(0);  // what is inside has its own
  return send_tunnel_packet(skb, {params.local_ip, params.remote_ip, wire::ip_protocol::udp,
                                  params.tos, read_once(params.ttl)});
}

}  // namespace tarvelo::stack
