// SPDX-License-Identifier: GPL-2.0-only
//
// The device that a new entry's frames really leave by, once its next hop is known: a VLAN device
// is looked through to the device below, a bridge to the port where it has learnt the host. With
// it, what both adds write about their devices into the connection's extension record.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/nf_conntrack.h"
#include "tarvelo/brc.h"

namespace tarvelo {

struct way_out {
  net_device* sendif;
  ::brc* bridge_entry;  ///< one reference held (put_bridge_entry()), or null
  u16 vid;
  net_device* real_dev;  ///< null: no VLAN
};

/// Looks through the device that frames for the MAC address `dmac` are sent to. False when it is a
/// bridge that does not know the host. Softirq context.
[[nodiscard]] bool find_way_out(net_device* dev, const u8* dmac, way_out* out);

/// Remembers the first VLAN input or point-to-point output of a connection: the device that tells
/// later which of its devices is the VLAN or PPP side. The table's lock is held.
void remember_device(vok_ct_ext* ext, net_device* input, net_device* output);

/// Remembers the VLAN that a direction leaves by, if it does. The table's lock is held.
void remember_vlan(vok_ct_ext* ext, ip_conntrack_dir direction, const way_out& out);

}  // namespace tarvelo
