// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/tunnel_output.h"

#include "kernel/route.h"
#include "kernel/wire/ip.h"
#include "module/ipc/next_hop.h"

namespace tarvelo {
namespace {

[[nodiscard]] bool is_l2tp(const ppp_conn_info& out) {
  return out.type == static_cast<u8>(ppp_channel_type::l2tp);
}

[[nodiscard]] flowi4 outer_flow(const ppp_conn_info& out) {
  const void* params = ppp_channel_params(out.chan);
  if (is_l2tp(out)) {
    const auto* tunnel = static_cast<const l2tp_params*>(params);
    return {tunnel->local_ip, tunnel->remote_ip, wire::ip_protocol::udp};
  }
  const auto* call = static_cast<const pptp_params*>(params);
  return {call->local_ip, call->remote_ip, wire::ip_protocol::gre};
}

/// The outer packets leave by a PPP interface, which puts them into its session itself.
[[nodiscard]] bool take_addresses_of_session(net_device* ppp, ipc_entry* entry) {
  ppp_conn_info session = {};
  session.type = static_cast<u8>(ppp_channel_type::none);
  if (ppp_get_conn_pkt_info(ppp, &session) != 0) return false;
  if (session.type != static_cast<u8>(ppp_channel_type::pppoe)) return false;
  const auto* params = static_cast<const pppoe_params*>(ppp_channel_params(session.chan));
  copy_mac(entry->dmac, params->remote);
  copy_mac(entry->smac, params->dev->dev_addr);
  return true;
}

/// Where the packet's own next hop has an Ethernet header, the entry has its address already.
[[nodiscard]] bool take_addresses_of_next_hop(const sk_buff* skb, const rtable* route,
                                              u32 destination, ipc_entry* entry) {
  const auto* own = reinterpret_cast<const rtable*>(skb_dst(skb));
  if (!has_cached_header(own, destination)) {
    next_hop hop;
    if (!find_next_hop_on(route, destination, &hop)) return false;
    copy_mac(entry->dmac, hop.dmac);
  }
  copy_mac(entry->smac, route->dst.dev->dev_addr);
  return true;
}

[[nodiscard]] bool take_addresses(const sk_buff* skb, const rtable* route, u32 destination,
                                  ipc_entry* entry, tunnel_carrier carrier) {
  net_device* dev = route->dst.dev;
  if (dev == nullptr) return false;
  if ((read_once(dev->flags) & IFF_POINTOPOINT) == 0) {
    return take_addresses_of_next_hop(skb, route, destination, entry);
  }
  return carrier == tunnel_carrier::any && take_addresses_of_session(dev, entry);
}

/// The only thing that the fast path writes into a channel.
void set_ttl(l2tp_params* tunnel, const rtable* route) {
  const u32 hop_limit = dst_metric_hoplimit(&route->dst);
  const u32 ttl = hop_limit != 0 ? hop_limit : static_cast<u32>(sysctl_ip_default_ttl);
  write_once(tunnel->ttl, static_cast<u8>(ttl));
}

}  // namespace

bool leave_by_tunnel(const sk_buff* skb, ipc_entry* entry, const ppp_conn_info& out,
                     tunnel_carrier carrier) {
  const flowi4 flow = outer_flow(out);
  rtable* route = ip_route_output_flow(&flow);
  if (route == nullptr) return false;
  const bool reachable = take_addresses(skb, route, flow.daddr, entry, carrier);
  if (reachable) {
    entry->sendif = route->dst.dev;
    entry->session = ppp_channel_params(out.chan);
    if (is_l2tp(out)) set_ttl(static_cast<l2tp_params*>(entry->session), route);
  }
  dst_release(&route->dst);
  return reachable;
}

}  // namespace tarvelo
