// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/build_l2tp.h"

#include "kernel/printk.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/ppp.h"
#include "kernel/wire/transport.h"
#include "module/forward/frame.h"
#include "module/forward/outer_ipv4.h"
#include "module/forward/transmit.h"

namespace tarvelo {
namespace {

constexpr const char* reporter = "set_l2tp_opt";
constexpr int unusable_session_line = 2247;
constexpr int header_length_line = 2248;

constexpr wire::ppp_omissions nothing_omitted = {false, false};

[[nodiscard]] constexpr u32 expected_header_length(const l2tp_session* session) {
  return session->send_seq != 0 ? wire::l2tp_sent_max_length : wire::l2tp_base_length;
}

void report_unusable(const sk_buff* skb, const l2tp_session* session) {
  printk("[%s %d]kelmarduin debug:skb offset is too big or null session\n", reporter,
         unusable_session_line);
  if (session == nullptr) return;
  printk("[%s %d]session->hdr_len=%d,skb->data=%p,skb->head=%p\n", reporter, header_length_line,
         session->hdr_len, static_cast<void*>(skb->data), static_cast<void*>(skb->head));
}

/// The session can take a packet: it is not ending, and what is announced for its header is what
/// its sequence setting makes of it.
fate check_output(const sk_buff* skb, const l2tp_session* session) {
  if (session->hdr_len > wire::l2tp_sent_max_length) {
    report_unusable(skb, session);
    return fate::no_session;
  }
  const bool sound = session->hdr_len == expected_header_length(session);
  return sound && !l2tp_session_closing(session) ? fate::forward : fate::no_session;
}

fate check_input(const sk_buff* skb, u32 header, const l2tp_session* session) {
  const u16 word = header_at<const wire::be16>(skb, header)->host();
  const auto* ids = header_at<const wire::l2tp_ids>(skb, header + wire::l2tp_ids_offset(word));
  const bool own = ids->tunnel_id.host() == session->tunnel->tunnel_id &&
                   ids->session_id.host() == session->session_id;
  return own ? fate::forward : fate::other_session;
}

/// The L2TP header proper.
void set_l2tp_opt(wire::l2tp_data_hdr* header, l2tp_session* session) {
  const bool numbered = session->send_seq != 0;
  header->flags = wire::be16(wire::l2tp_flag::version | (numbered ? wire::l2tp_flag::sequence : 0));
  header->tunnel_id = wire::be16(session->tunnel->peer_tunnel_id);
  header->session_id = wire::be16(session->peer_session_id);
  if (!numbered) return;
  header->ns = wire::be16(l2tp_session_next_ns(session));
  header->nr = wire::be16(0);
}

}  // namespace

u32 l2tp_stack_length(const l2tp_session* session) {
  return wire::ipv4_min_length + u32{sizeof(wire::udphdr)} + session->hdr_len +
         wire::ppp_framing_length(nothing_omitted);
}

fate hold_l2tp_session(const sk_buff* skb, const tunnel_header& tunnel, const passage& way,
                       l2tp_session** held) {
  auto* session = read_once(static_cast<const l2tp_params*>(way.session)->l2tp_session);
  if (session == nullptr) {
    if (way.has(ipc_flag::l2tp_out)) report_unusable(skb, session);
    return fate::no_session;
  }
  if (!l2tp_session_get_not_zero(session)) return fate::no_session;
  *held = session;
  return way.has(ipc_flag::l2tp_out) ? check_output(skb, session)
                                     : check_input(skb, tunnel.header, session);
}

void note_l2tp_input(const sk_buff* skb, u32 header, l2tp_session* session) {
  const u16 word = header_at<const wire::be16>(skb, header)->host();
  if ((word & wire::l2tp_flag::sequence) != 0) l2tp_session_count_nr(session);
}

void build_l2tp(sk_buff* skb, u32 at, const l2tp_params* params) {
  l2tp_session* session = params->l2tp_session;
  const u32 udp = at + wire::ipv4_min_length;
  const u32 l2tp = udp + u32{sizeof(wire::udphdr)};
  wire::write_ppp_framing(skb->data + l2tp + session->hdr_len, wire::ppp_protocol::ipv4,
                          nothing_omitted);
  set_l2tp_opt(header_at<wire::l2tp_data_hdr>(skb, l2tp), session);

  auto* header = header_at<wire::udphdr>(skb, udp);
  header->source = wire::be16::from_raw(params->local_port);
  header->dest = wire::be16::from_raw(params->remote_port);
  header->len = wire::be16(static_cast<u16>(skb->len - udp));
  header->check = wire::be16(0);
  vok_skb_reset_transport_header(skb, skb->data + udp);
  build_outer_ipv4(skb, at,
                   {params->local_ip, params->remote_ip, wire::ip_protocol::udp, params->tos,
                    read_once(params->ttl)});
}

}  // namespace tarvelo
