// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/way_out.h"

#include "kernel/if_vlan.h"
#include "module/brc/table.h"

namespace tarvelo {
namespace {

/// VLAN ids 0 and 1 are the priority tag and the default VLAN: no VLAN of their own.
constexpr u16 first_real_vlan_id = 2;

}  // namespace

bool find_way_out(net_device* dev, const u8* dmac, way_out* out) {
  *out = {dev, nullptr, 0, nullptr};
  if (is_vlan_dev(dev)) {
    out->vid = vlan_dev_vlan_id(dev);
    out->real_dev = vlan_dev_real_dev(dev);
    return true;
  }
  if ((dev->priv_flags & IFF_EBRIDGE) == 0) return true;

  bridge_host host;
  if (!hold_host_in_bridge(cih, dmac, bridge_id(dev), &host)) return false;
  out->bridge_entry = host.entry;
  out->sendif = host.sendif;
  if (host.vlan_dev != nullptr) {
    out->sendif = host.vlan_dev;
    out->vid = host.VLANID;
    out->real_dev = host.sendif;
  }
  return true;
}

void remember_device(vok_ct_ext* ext, net_device* input, net_device* output) {
  if (read_once(ext->dev) != nullptr) return;
  if (is_vlan_dev(input) && vlan_dev_vlan_id(input) >= first_real_vlan_id) {
    write_once(ext->dev, input);
  } else if ((read_once(output->flags) & IFF_POINTOPOINT) != 0) {
    write_once(ext->dev, output);
  }
}

void remember_vlan(vok_ct_ext* ext, ip_conntrack_dir direction, const way_out& out) {
  if (out.real_dev == nullptr) return;
  write_once(ext->vlan[direction].vid, out.vid);
  write_once(ext->vlan[direction].real_dev, out.real_dev);
}

}  // namespace tarvelo
