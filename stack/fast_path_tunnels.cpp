// SPDX-License-Identifier: GPL-2.0-only
#include "stack/fast_path_tunnels.h"

#include "kernel/netdevice.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/gre.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/l2tp.h"
#include "kernel/wire/ppp.h"
#include "kernel/wire/transport.h"
#include "stack/published_handle.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

constexpr u32 not_there = ~0U;  ///< as an offset

template <typename Header>
const Header* header_at(const sk_buff* skb, u32 offset) noexcept {
  static_assert(alignof(Header) == 1);
  if (skb_headlen(skb) < offset + sizeof(Header)) return nullptr;
  return reinterpret_cast<const Header*>(skb->data + offset);
}

/// Offset of the IPv4 header: behind the Ethernet header, a tag and a PPPoE header, as far as they
/// are there.
u32 ipv4_offset(const sk_buff* skb) noexcept {
  if (skb->dev->type != ARPHRD_ETHER) return 0;
  u32 at = wire::ethernet_length;
  const auto* type = header_at<wire::be16>(skb, at - static_cast<u32>(sizeof(wire::be16)));
  if (type != nullptr && type->host() == wire::ethertype::vlan) {
    at += wire::vlan_tag_length;
    type = header_at<wire::be16>(skb, at - static_cast<u32>(sizeof(wire::be16)));
  }
  if (type == nullptr) return not_there;
  if (type->host() == wire::ethertype::ipv4) return at;
  if (type->host() != wire::ethertype::pppoe_session) return not_there;
  const auto* pppoe = header_at<wire::pppoe_hdr>(skb, at);
  if (pppoe == nullptr || pppoe->protocol.host() != wire::ppp_protocol::ipv4) return not_there;
  return at + wire::pppoe_length;
}

/// A PPTP data packet whose header is at `at`.
bool pptp_must_stay(const vok_handle* handle, const sk_buff* skb, const wire::iphdr* ip, u32 at) {
  const auto* gre = header_at<wire::pptp_gre_hdr>(skb, at);
  if (gre == nullptr || !gre->is_pptp_data()) return false;
  if (core().ppp.find_pptp(ip->daddr, ip->saddr, gre->call_id) == nullptr) return true;
  const u32 payload = at + gre->length();
  if (skb_headlen(skb) < payload + wire::ppp_max_length) return false;
  const u8* ppp = skb->data + payload;
  return handle->_vok_pptp_control_packet(ppp) != 0 || handle->_vok_pptp_compress_packet(ppp) != 0;
}

bool is_between_ends(const wire::iphdr* ip, const wire::udphdr* udp, const l2tp_params& params) {
  return ip->saddr.raw() == params.remote_ip && ip->daddr.raw() == params.local_ip &&
         udp->source.raw() == params.remote_port && udp->dest.raw() == params.local_port;
}

/// A datagram whose header is at `at`.
bool l2tp_must_stay(const sk_buff* skb, const wire::iphdr* ip, u32 at) {
  const u32 message = at + static_cast<u32>(sizeof(wire::udphdr));
  const auto* word = header_at<wire::be16>(skb, message);
  if (word == nullptr || !wire::l2tp_is_data(word->host())) return false;
  const auto* ids = header_at<wire::l2tp_ids>(skb, message + wire::l2tp_ids_offset(word->host()));
  if (ids == nullptr) return false;
  const ppp_session* session = core().ppp.find_l2tp(ids->tunnel_id, ids->session_id);
  if (session == nullptr) return false;
  return !is_between_ends(ip, header_at<wire::udphdr>(skb, at), session->l2tp());
}

}  // namespace

void fast_path_sweep(const ppp_session& session) noexcept {
  if (session.type() != ppp_channel_type::l2tp) return;
  const published_handle handle;
  if (handle) handle->session_delete_ipc(handle.get(), session.l2tp().l2tp_session);
}

bool is_for_tunnel_end(const vok_handle* handle, const sk_buff* skb) noexcept {
  const u32 l3 = ipv4_offset(skb);
  const auto* ip = l3 != not_there ? header_at<wire::iphdr>(skb, l3) : nullptr;
  if (ip == nullptr) return false;
  switch (ip->protocol) {
    case wire::ip_protocol::gre:
      return pptp_must_stay(handle, skb, ip, l3 + ip->header_length());
    case wire::ip_protocol::udp:
      return l2tp_must_stay(skb, ip, l3 + ip->header_length());
    default:
      return false;
  }
}

}  // namespace tarvelo::stack
