// SPDX-License-Identifier: GPL-2.0-only
#include "stack/arp.h"

#include <algorithm>
#include <cstring>

#include "kernel/route.h"
#include "kernel/wire/ethernet.h"
#include "stack/ip_packet.h"
#include "stack/neighbour_cache.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

constexpr u16 hardware_ethernet = 1;
constexpr u8 ipv4_address_length = 4;
constexpr u8 broadcast_mac[wire::mac_length] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

bool is_host_mac(const u8* mac) noexcept {
  if ((mac[0] & wire::mac_group_bit) != 0) return false;
  return std::any_of(mac, mac + wire::mac_length, [](u8 byte) { return byte != 0; });
}

bool is_sound(const sk_buff* skb) noexcept {
  if (skb_headlen(skb) < sizeof(wire::arphdr)) return false;
  const auto* arp = reinterpret_cast<const wire::arphdr*>(skb->data);
  return arp->ar_hrd.host() == hardware_ethernet && arp->ar_pro.host() == wire::ethertype::ipv4 &&
         arp->ar_hln == wire::mac_length && arp->ar_pln == ipv4_address_length &&
         is_host_mac(arp->ar_sha);
}

/// True when the router has `address` on this very device.
bool is_address_of(const net_device* dev, u32 address) noexcept {
  const device_record* record = core().devices.find(dev);
  return record != nullptr &&
         std::any_of(record->addresses.begin(), record->addresses.end(),
                     [=](const ipv4_prefix& p) { return p.address == address; });
}

/// True when packets to `address` would go to it directly by `dev`.
bool is_neighbour_address(const net_device* dev, u32 address) noexcept {
  if (!is_single_host(address) || core().devices.is_own(address)) return false;
  const flowi4 flow{0, address, 0};
  rtable* route = ip_route_output_flow(&flow);
  if (route == nullptr) return false;
  const u32 gateway = rt_next_hop(route);
  const bool direct = route->rt_type == RTN_UNICAST && route->dst.dev == dev &&
                      (gateway == 0 || gateway == address);
  dst_release(&route->dst);
  return direct;
}

/// Builds and sends a packet from the device's own hardware address.
void send_arp(net_device* dev, const u8* to_mac, const wire::arphdr& message) noexcept {
  constexpr u32 length = wire::ethernet_length + sizeof(wire::arphdr);
  sk_buff* skb = alloc_packet(length);
  if (skb == nullptr) return;
  u8* frame = skb_put(skb, length);
  wire::ethhdr eth;
  std::memcpy(eth.h_dest, to_mac, wire::mac_length);
  std::memcpy(eth.h_source, dev->dev_addr, wire::mac_length);
  eth.h_proto = wire::be16(wire::ethertype::arp);
  std::memcpy(frame, &eth, sizeof eth);
  std::memcpy(frame + wire::ethernet_length, &message, sizeof message);

  skb->dev = dev;
  skb->protocol = wire::htons(wire::ethertype::arp);
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  skb->network_header = static_cast<u16>(skb->mac_header + wire::ethernet_length);
  dev_queue_xmit(skb);
}

wire::arphdr make_message(const net_device* dev, u16 operation, u32 sender, u32 target) noexcept {
  wire::arphdr message{};
  message.ar_hrd = wire::be16(hardware_ethernet);
  message.ar_pro = wire::be16(wire::ethertype::ipv4);
  message.ar_hln = wire::mac_length;
  message.ar_pln = ipv4_address_length;
  message.ar_op = wire::be16(operation);
  std::memcpy(message.ar_sha, dev->dev_addr, wire::mac_length);
  message.ar_sip = wire::be32::from_raw(sender);
  message.ar_tip = wire::be32::from_raw(target);
  return message;
}

void answer(net_device* dev, const wire::arphdr& request) noexcept {
  wire::arphdr reply =
      make_message(dev, wire::arp_op::reply, request.ar_tip.raw(), request.ar_sip.raw());
  std::memcpy(reply.ar_tha, request.ar_sha, wire::mac_length);
  send_arp(dev, request.ar_sha, reply);
}

/// What a message says about its sender.
neighbour_evidence evidence_of(const net_device* dev, const wire::arphdr& arp) noexcept {
  if (!is_address_of(dev, arp.ar_tip.raw())) return neighbour_evidence::announcement;
  return arp.ar_op.host() == wire::arp_op::reply ? neighbour_evidence::answer
                                                 : neighbour_evidence::question;
}

}  // namespace

receive_verdict input_arp(sk_buff* skb) {
  if (!is_sound(skb)) return discard(skb);
  net_device* dev = skb->dev;
  wire::arphdr arp;
  std::memcpy(&arp, skb->data, sizeof arp);
  kfree_skb(skb);

  const u16 operation = arp.ar_op.host();
  if (operation != wire::arp_op::request && operation != wire::arp_op::reply) {
    return receive_verdict::dropped;
  }
  // A sender without an address yet asks whether one is taken.
  const bool probing = operation == wire::arp_op::request && arp.ar_sip.raw() == 0;
  const bool believable = is_neighbour_address(dev, arp.ar_sip.raw());
  if (!probing && !believable) return receive_verdict::dropped;

  const neighbour_evidence evidence = evidence_of(dev, arp);
  if (believable) neighbour_learn(dev, arp.ar_sip.raw(), arp.ar_sha, evidence);
  if (evidence == neighbour_evidence::question) answer(dev, arp);
  return receive_verdict::slow;
}

void arp_request(net_device* dev, u32 target, const u8* mac) {
  const u32 sender = core().devices.source_address(dev, target);
  const wire::arphdr message = make_message(dev, wire::arp_op::request, sender, target);
  send_arp(dev, mac != nullptr ? mac : broadcast_mac, message);
}

}  // namespace tarvelo::stack
