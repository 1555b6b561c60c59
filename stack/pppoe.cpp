// SPDX-License-Identifier: GPL-2.0-only
#include "stack/pppoe.h"

#include <cstring>

#include "stack/ppp.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

constexpr u8 version_and_type = 0x11;
constexpr u8 session_data = 0x00;
/// Bytes of the header that its length field does not count: all but the PPP protocol.
constexpr u32 uncounted_length = wire::pppoe_length - sizeof(wire::be16);

/// The session of a frame whose headers are at these places.
const ppp_session* find_session(const net_device* dev, const wire::pppoe_hdr* pppoe,
                                const u8* sender) noexcept {
  if (pppoe->version_type != version_and_type || pppoe->code != session_data) return nullptr;
  const ppp_session* session = core().ppp.find_pppoe(dev, pppoe->sid);
  if (session == nullptr) return nullptr;
  const bool from_peer = std::memcmp(sender, session->pppoe().remote, wire::mac_length) == 0;
  return from_peer ? session : nullptr;
}

}  // namespace

session_frame session_frame_of(const sk_buff* skb, const net_device* dev) noexcept {
  const auto* eth = reinterpret_cast<const wire::vlan_ethhdr*>(skb->data);
  const u32 available = skb_headlen(skb);
  if (available < wire::tagged_ethernet_length + wire::pppoe_length) return session_frame::none;
  const bool tagged = eth->h_vlan_proto.host() == wire::ethertype::vlan;
  const wire::be16 type = tagged ? eth->h_vlan_encapsulated_proto : eth->h_vlan_proto;
  if (type.host() != wire::ethertype::pppoe_session) return session_frame::none;
  const u32 at = tagged ? wire::tagged_ethernet_length : wire::ethernet_length;
  const auto* pppoe = reinterpret_cast<const wire::pppoe_hdr*>(skb->data + at);
  const bool known = find_session(dev, pppoe, eth->h_source) != nullptr;
  return known ? session_frame::known : session_frame::unknown;
}

receive_verdict input_pppoe(sk_buff* skb) {
  if (skb_headlen(skb) < wire::pppoe_length) return discard(skb);
  const auto* pppoe = reinterpret_cast<const wire::pppoe_hdr*>(skb->data);
  const auto* eth = reinterpret_cast<const wire::ethhdr*>(skb->head + skb->mac_header);
  const ppp_session* session = find_session(skb->dev, pppoe, eth->h_source);
  if (session == nullptr) return discard(skb);

  const u32 length = uncounted_length + pppoe->length.host();
  if (length < wire::pppoe_length || length > skb->len) return discard(skb);
  const u16 protocol = pppoe->protocol.host();
  skb_trim(skb, length);
  skb_pull(skb, wire::pppoe_length);
  return input_ppp_payload(skb, *session, protocol);
}

receive_verdict send_by_pppoe(sk_buff* skb, const pppoe_params& params) noexcept {
  const u16 protocol = ppp_protocol_of(skb);
  const u32 length = skb->len + wire::pppoe_length - uncounted_length;
  auto* pppoe = reinterpret_cast<wire::pppoe_hdr*>(skb_push(skb, wire::pppoe_length));
  pppoe->version_type = version_and_type;
  pppoe->code = session_data;
  pppoe->sid = wire::be16::from_raw(params.sid);
  pppoe->length = wire::be16(static_cast<u16>(length));
  pppoe->protocol = wire::be16(protocol);

  auto* eth = reinterpret_cast<wire::ethhdr*>(skb_push(skb, wire::ethernet_length));
  std::memcpy(eth->h_dest, params.remote, wire::mac_length);
  std::memcpy(eth->h_source, params.dev->dev_addr, wire::mac_length);
  eth->h_proto = wire::be16(wire::ethertype::pppoe_session);
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  skb->protocol = wire::htons(wire::ethertype::pppoe_session);
  skb->dev = params.dev;
  return dev_queue_xmit(skb) == NETDEV_TX_OK ? receive_verdict::slow : receive_verdict::dropped;
}

}  // namespace tarvelo::stack
