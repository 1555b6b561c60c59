// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/next_hop.h"

#include "kernel/route.h"
#include "module/core/handle.h"
#include "module/forward/mac.h"

namespace tarvelo {
namespace {

[[nodiscard]] bool attach_route(sk_buff* skb, const wire::iphdr* ip, u32 destination) {
  if (skb_dst(skb) != nullptr) return true;
  const rcu_read_side read_side;
  if (ip_route_input_noref(skb, destination, ip->saddr.raw(), ip->tos, skb->dev) != 0) {
    return false;
  }
  skb_dst_force(skb);
  return skb_dst(skb) != nullptr;
}

[[nodiscard]] const rtable* forwarding_route(const sk_buff* skb) {
  const dst_entry* dst = skb_dst(skb);
  if (dst->input != ip_forward) return nullptr;
  const auto* route = reinterpret_cast<const rtable*>(dst);
  return route->rt_type == RTN_UNICAST ? route : nullptr;
}

/// The address whose neighbour entry is the next hop's; devices without addresses of their own
/// keep one entry, under address 0.
[[nodiscard]] u32 neighbour_key(const rtable* route, u32 destination) {
  if ((read_once(route->dst.dev->flags) & (IFF_LOOPBACK | IFF_POINTOPOINT)) != 0) return 0;
  const u32 gateway = rt_next_hop(route);
  return gateway != 0 ? gateway : destination;
}

[[nodiscard]] bool is_usable(const neighbour* neigh, const net_device* dev) {
  const bool point_to_point = (read_once(dev->flags) & IFF_POINTOPOINT) != 0;
  const u8 accepted = point_to_point ? NUD_VALID : static_cast<u8>(NUD_VALID & ~NUD_NOARP);
  return (read_once(neigh->nud_state) & accepted) != 0;
}

void copy_addresses(const neighbour* neigh, net_device* dev, next_hop* hop) {
  hop->dev = dev;
  u8 header[wire::ethernet_length];
  if (neigh_hh_copy(neigh, header)) {
    const auto* ethernet = reinterpret_cast<const wire::ethhdr*>(header);
    copy_mac(hop->dmac, ethernet->h_dest);
    copy_mac(hop->smac, ethernet->h_source);
    return;
  }
  neigh_ha_snapshot(hop->dmac, neigh);
  copy_mac(hop->smac, dev->dev_addr);
}

}  // namespace

bool read_next_hop(neigh_table* table, const void* key, net_device* dev, next_hop* hop) {
  neighbour* neigh = neigh_lookup(table, key, dev);
  if (neigh == nullptr) return false;
  const bool usable = is_usable(neigh, dev);
  if (usable) copy_addresses(neigh, dev, hop);
  neigh_release(neigh);
  return usable;
}

bool find_next_hop(sk_buff* skb, const wire::iphdr* ip, u32 destination, next_hop* hop) {
  if (!attach_route(skb, ip, destination)) return false;
  const rtable* route = forwarding_route(skb);
  if (route == nullptr) return false;
  return find_next_hop_on(route, destination, hop);
}

bool find_next_hop_on(const rtable* route, u32 destination, next_hop* hop) {
  const u32 key = neighbour_key(route, destination);
  return read_next_hop(&arp_tbl, &key, route->dst.dev, hop);
}

bool has_cached_header(const rtable* route, u32 destination) {
  const u32 key = neighbour_key(route, destination);
  neighbour* neigh = neigh_lookup(&arp_tbl, &key, route->dst.dev);
  if (neigh == nullptr) return false;
  u8 header[wire::ethernet_length];
  const bool cached = neigh_hh_copy(neigh, header);
  neigh_release(neigh);
  return cached;
}

}  // namespace tarvelo
