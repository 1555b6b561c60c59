// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/depart.h"

#include "module/forward/vlan_tag.h"

namespace tarvelo {
namespace {

[[nodiscard]] constexpr u16 type_of(family ip) {
  return ip == family::ipv4 ? wire::ethertype::ipv4 : wire::ethertype::ipv6;
}

}  // namespace

void count_vlan_input(const sk_buff* skb, const passage& way) {
  if (way.has(ipc_mode::expects_pppoe)) return;
  net_device* dev = read_once(way.ext->dev);
  if (dev != nullptr && is_vlan_dev(dev)) dev_count_rx(dev, skb->len);
}

void fit_to_device(vok_handle* ci, sk_buff* skb, const frame& f, const passage& way, nf_conn* ct) {
  if ((read_once(skb->dev->flags) & IFF_POINTOPOINT) != 0) {
    skb_pull(skb, wire::ethernet_length);
    skb->protocol = wire::htons(type_of(f.ip));
  } else if (is_vlan_dev(skb->dev) && skb->dev == way.sendif) {
    choose_vlan_slot(skb, way.dir);
    _vok_add_vlan_tag(ci, skb, ct);
  }
}

}  // namespace tarvelo
