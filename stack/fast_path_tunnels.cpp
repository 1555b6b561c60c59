// SPDX-License-Identifier: GPL-2.0-only
#include "stack/fast_path_tunnels.h"

#include "kernel/netdevice.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/gre.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/ppp.h"
#include "stack/published_handle.h"

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

/// Offset of the PPP frame in a PPTP packet.
u32 pptp_payload_offset(const sk_buff* skb) noexcept {
  const u32 l3 = ipv4_offset(skb);
  if (l3 == not_there) return not_there;
  const auto* ip = header_at<wire::iphdr>(skb, l3);
  if (ip == nullptr || ip->protocol != wire::ip_protocol::gre) return not_there;
  const u32 at = l3 + ip->header_length();
  const auto* gre = header_at<wire::pptp_gre_hdr>(skb, at);
  return gre != nullptr && gre->is_pptp_data() ? at + gre->length() : not_there;
}

}  // namespace

void fast_path_sweep(const ppp_session& session) noexcept {
  if (session.type() != ppp_channel_type::l2tp) return;
  const published_handle handle;
  if (handle) handle->session_delete_ipc(handle.get(), session.l2tp().l2tp_session);
}

bool is_tunnel_control(const vok_handle* handle, const sk_buff* skb) noexcept {
  const u32 at = pptp_payload_offset(skb);
  if (at == not_there || skb_headlen(skb) < at + wire::ppp_max_length) return false;
  const u8* ppp = skb->data + at;
  return handle->_vok_pptp_control_packet(ppp) != 0 || handle->_vok_pptp_compress_packet(ppp) != 0;
}

}  // namespace tarvelo::stack
