// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/if_vlan.h"

#include <cstring>

#include "kernel/netdevice_internal.h"

extern "C" {

net_device* vlan_dev_alloc(const char* name, net_device* real_dev, u16 vlan_id,
                           u16 flags) noexcept {
  net_device* dev = alloc_netdev(name, real_dev->type);
  if (dev == nullptr) return nullptr;
  dev->priv_flags |= IFF_802_1Q_VLAN;
  dev->mtu = real_dev->mtu;
  std::memcpy(dev->dev_addr, real_dev->dev_addr, sizeof dev->dev_addr);
  hosted::device* d = hosted::device_of(dev);
  dev_hold(real_dev);
  d->real_dev = real_dev;
  d->vlan_id = vlan_id;
  d->vlan_flags = flags;
  return dev;
}

net_device* vlan_dev_real_dev(const net_device* dev) noexcept {
  return hosted::device_of(dev)->real_dev;
}

u16 vlan_dev_vlan_id(const net_device* dev) noexcept {
  return hosted::device_of(dev)->vlan_id;
}

u16 vlan_dev_flags(const net_device* dev) noexcept {
  return hosted::device_of(dev)->vlan_flags;
}

}  // extern "C"
