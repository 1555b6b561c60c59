// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/depart.h"

#include "kernel/if_vlan.h"
#include "module/forward/vlan_tag.h"

namespace tarvelo {
namespace {

/// Tag control words of 0 and 1 are a tag that says nothing.
constexpr u16 first_meaningful_tci = 2;

/// A VLAN device below the router that takes no part in the forwarding still shows what came in;
/// what came in by PPP was counted there.
void count_vlan_input(const sk_buff* skb, const frame& f, const passage& way) {
  if (f.tci < first_meaningful_tci || way.has(ipc_mode::expects_pppoe)) return;
  net_device* dev = read_once(way.ext->dev);
  if (dev != nullptr && is_vlan_dev(dev)) dev_count_rx(dev, skb->len);
}

[[nodiscard]] constexpr u16 type_of(family ip) {
  return ip == family::ipv4 ? wire::ethertype::ipv4 : wire::ethertype::ipv6;
}

/// Without an Ethernet header, with a tag for the device below a VLAN device, or as it is.
void fit_to_device(vok_handle* ci, sk_buff* skb, const frame& f, const passage& way, nf_conn* ct) {
  if ((skb->dev->flags & IFF_POINTOPOINT) != 0) {
    skb_pull(skb, wire::ethernet_length);
    skb->protocol = wire::htons(type_of(f.ip));
  } else if (is_vlan_dev(skb->dev) && skb->dev == way.sendif) {
    choose_vlan_slot(skb, way.dir);
    _vok_add_vlan_tag(ci, skb, ct);
  }
}

}  // namespace

fate depart(vok_handle* ci, sk_buff* skb, const frame& f, const passage& way, nf_conn* ct) {
  if ((skb->dev->flags & IFF_UP) == 0) return fate::drop;
  count_vlan_input(skb, f, way);
  skb->priority = f.priority;
  fit_to_device(ci, skb, f, way, ct);
  skb->nfctinfo = way.dir == IP_CT_DIR_REPLY ? IP_CT_ESTABLISHED_REPLY : IP_CT_ESTABLISHED;
  return fate::forward;
}

}  // namespace tarvelo
