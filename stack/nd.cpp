// SPDX-License-Identifier: GPL-2.0-only
#include "stack/nd.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "kernel/route6.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/transport.h"
#include "stack/checksum.h"
#include "stack/icmpv6.h"
#include "stack/ip_packet.h"
#include "stack/ipv6_output.h"
#include "stack/ipv6_packet.h"
#include "stack/neighbour_cache.h"
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {

constexpr wire::in6_addr all_nodes = {{0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}};
constexpr u8 group_mac_prefix[2] = {0x33, 0x33};
constexpr u32 address_option_length = 2 + wire::mac_length;

/// A message that has been checked.
struct nd_view {
  u8 type;
  u32 flags;
  wire::in6_addr sender;
  wire::in6_addr destination;
  wire::in6_addr target;
  std::optional<mac_address> mac;  ///< of the sender in a solicitation, of the target in an answer
};

/// The group that whoever has the address listens to (RFC 4291, 2.7.1).
wire::in6_addr solicited_node(const wire::in6_addr& target) noexcept {
  wire::in6_addr group = {{0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xFF, 0, 0, 0}};
  std::copy(target.bytes + 13, target.bytes + 16, group.bytes + 13);
  return group;
}

mac_address group_mac(const wire::in6_addr& group) noexcept {
  mac_address mac{{group_mac_prefix[0], group_mac_prefix[1]}};
  std::copy(group.bytes + 12, group.bytes + 16, mac.bytes + 2);
  return mac;
}

/// Walks the options. False when one is malformed; `*found` is the wanted address when it is there.
bool read_options(const u8* at, const u8* end, u8 wanted,
                  std::optional<mac_address>* found) noexcept {
  while (at < end) {
    if (end - at < 2 || at[1] == 0) return false;
    const std::ptrdiff_t length = at[1] * std::ptrdiff_t{wire::nd_option::unit};
    if (length > end - at) return false;
    if (at[0] == wanted) {
      mac_address mac{};
      std::memcpy(mac.bytes, at + 2, sizeof mac.bytes);
      if ((mac.bytes[0] & wire::mac_group_bit) != 0 || mac == mac_address{}) return false;
      *found = mac;
    }
    at += length;
  }
  return true;
}

/// What RFC 4861, 7.1 asks of both messages.
std::optional<nd_view> read_message(const sk_buff* skb) noexcept {
  const wire::ipv6hdr& ip = *ipv6_header(skb);
  const u32 length = skb->len - (u32{skb->transport_header} - skb->network_header);
  if (ip.hop_limit != on_link_hop_limit || length < sizeof(wire::nd_message)) return std::nullopt;
  const u8* start = skb_transport_header(skb);
  const u32 sum =
      pseudo_header_sum(ip.saddr, ip.daddr, wire::ip_protocol::icmpv6, static_cast<u16>(length));
  if (!checksum_holds(start, length, sum)) return std::nullopt;

  wire::nd_message message;
  std::memcpy(&message, start, sizeof message);
  if (message.code != 0) return std::nullopt;
  nd_view view{message.type, message.flags.host(), ip.saddr, ip.daddr, {}, std::nullopt};
  std::memcpy(&view.target, message.target, sizeof view.target);
  if (!is_single_host(view.target)) return std::nullopt;
  const u8 wanted = message.type == wire::icmpv6_type::neighbour_solicitation
                        ? wire::nd_option::source_address
                        : wire::nd_option::target_address;
  if (!read_options(start + sizeof message, start + length, wanted, &view.mac)) return std::nullopt;
  return view;
}

/// True when the router would send to `address` directly by `dev`.
bool is_neighbour_address(const net_device* dev, const wire::in6_addr& address) noexcept {
  if (core().devices.has_address(dev, address)) return false;
  if (is_link_local(address)) return true;
  if (!is_single_host(address)) return false;
  const flowi6 flow{{}, address, wire::ip_protocol::icmpv6};
  rt6_info* route = ip6_route_output(&flow);
  if (route == nullptr) return false;
  const bool direct = route->rt_type == RTN_UNICAST && route->dst.dev == dev &&
                      *rt6_nexthop(route, &address) == address;
  dst_release(&route->dst);
  return direct;
}

/// A message with the device's own address as its option: `option` says whether as the sender's or
/// the target's. The buffer begins at the IPv6 header; null without memory.
sk_buff* build_message(const net_device* dev, const nd_view& view, u8 option) noexcept {
  constexpr u32 payload = sizeof(wire::nd_message) + address_option_length;
  sk_buff* skb = alloc_packet(wire::ipv6_length + payload);
  if (skb == nullptr) return nullptr;
  auto* ip = reinterpret_cast<wire::ipv6hdr*>(skb_put(skb, wire::ipv6_length + payload));
  write_ipv6_header(ip, view.sender, view.destination, wire::ip_protocol::icmpv6, payload);
  ip->hop_limit = on_link_hop_limit;

  auto* message = reinterpret_cast<wire::nd_message*>(ip + 1);
  message->type = view.type;
  message->code = 0;
  message->flags = wire::be32(view.flags);
  std::memcpy(message->target, &view.target, sizeof message->target);
  u8* own = reinterpret_cast<u8*>(message + 1);
  own[0] = option;
  own[1] = address_option_length / wire::nd_option::unit;
  std::memcpy(own + 2, dev->dev_addr, wire::mac_length);
  sum_icmpv6(ip);
  mark_ipv6_packet(skb, wire::ipv6_length);
  return skb;
}

/// Sends to a known hardware address, past the neighbour cache.
void send_to_mac(sk_buff* skb, net_device* dev, const u8* mac) noexcept {
  auto* eth = reinterpret_cast<wire::ethhdr*>(skb_push(skb, wire::ethernet_length));
  std::memcpy(eth->h_dest, mac, wire::mac_length);
  std::memcpy(eth->h_source, dev->dev_addr, wire::mac_length);
  eth->h_proto = wire::be16(wire::ethertype::ipv6);
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
  skb->dev = dev;
  dev_queue_xmit(skb);
}

/// Answers a solicitation; one without a sender asks whether an address is taken, and all listen.
receive_verdict advertise(net_device* dev, const nd_view& asked) {
  const bool to_all = is_unspecified(asked.sender);
  const u32 flags = wire::nd_flag::router | wire::nd_flag::override_known |
                    (to_all ? 0 : wire::nd_flag::solicited);
  const nd_view answer{wire::icmpv6_type::neighbour_advertisement, flags,        asked.target,
                       to_all ? all_nodes : asked.sender,          asked.target, std::nullopt};
  sk_buff* skb = build_message(dev, answer, wire::nd_option::target_address);
  if (skb == nullptr) return receive_verdict::dropped;
  if (!to_all && !asked.mac) {
    skb->dev = dev;
    return neighbour_output(skb, asked.sender);
  }
  send_to_mac(skb, dev, to_all ? group_mac(all_nodes).bytes : asked.mac->bytes);
  return receive_verdict::slow;
}

receive_verdict input_solicitation(net_device* dev, const nd_view& asked) {
  const bool probing = is_unspecified(asked.sender);
  if (probing && (asked.mac || asked.destination != solicited_node(asked.target))) {
    return receive_verdict::dropped;
  }
  if (!probing && !is_neighbour_address(dev, asked.sender)) return receive_verdict::dropped;
  if (!core().devices.has_address(dev, asked.target)) return receive_verdict::dropped;
  if (asked.mac) {
    neighbour_learn(dev, asked.sender, asked.mac->bytes, neighbour_evidence::question);
  }
  return advertise(dev, asked);
}

receive_verdict input_advertisement(net_device* dev, const nd_view& told) {
  const bool solicited = (told.flags & wire::nd_flag::solicited) != 0;
  if (solicited && is_multicast(told.destination)) return receive_verdict::dropped;
  if (!is_neighbour_address(dev, told.target)) return receive_verdict::dropped;
  const bool may_replace = (told.flags & wire::nd_flag::override_known) != 0;
  neighbour_evidence evidence = neighbour_evidence::announcement;
  if (solicited) evidence = may_replace ? neighbour_evidence::answer : neighbour_evidence::hint;
  if (!solicited && !may_replace) return receive_verdict::dropped;
  neighbour_learn(dev, told.target, told.mac ? told.mac->bytes : nullptr, evidence);
  return receive_verdict::slow;
}

}  // namespace

receive_verdict input_nd(sk_buff* skb) {
  net_device* dev = skb->dev;
  const std::optional<nd_view> view = read_message(skb);
  kfree_skb(skb);
  if (!view || dev->type != ARPHRD_ETHER) return receive_verdict::dropped;
  switch (view->type) {
    case wire::icmpv6_type::neighbour_solicitation:
      return input_solicitation(dev, *view);
    case wire::icmpv6_type::neighbour_advertisement:
      return input_advertisement(dev, *view);
    default:
      return receive_verdict::dropped;
  }
}

void nd_solicit(net_device* dev, const wire::in6_addr& target, const u8* mac) {
  const wire::in6_addr destination = mac != nullptr ? target : solicited_node(target);
  const nd_view question{wire::icmpv6_type::neighbour_solicitation,
                         0,
                         core().devices.source_address(dev, target),
                         destination,
                         target,
                         std::nullopt};
  sk_buff* skb = build_message(dev, question, wire::nd_option::source_address);
  if (skb == nullptr) return;
  send_to_mac(skb, dev, mac != nullptr ? mac : group_mac(destination).bytes);
}

wire::in6_addr link_local_address(const u8 mac[wire::mac_length]) noexcept {
  constexpr u8 universal_bit = 0x02;
  return {{0xFE, 0x80, 0, 0, 0, 0, 0, 0, static_cast<u8>(mac[0] ^ universal_bit), mac[1], mac[2],
           0xFF, 0xFE, mac[3], mac[4], mac[5]}};
}

}  // namespace tarvelo::stack
