// SPDX-License-Identifier: GPL-2.0-only
//
// The bridge cache entry: a host that a bridge has learnt on one of its ports, the device a frame
// for that host leaves by, and how its VLAN tag is to be treated.
//
// Guarded by the bridge cache's reader-writer lock. `refcnt` counts the table's own reference and
// one for each connection entry that points here; it is changed atomically, with or without the
// lock, and whoever drops it to 0 frees the entry after an RCU grace period.
#pragma once

#include "tarvelo/fwd.h"

namespace tarvelo {

enum class tag_mode : std::uint8_t {
  tag = 1,    ///< frames leave with an 802.1Q tag that carries `VLANID`
  untag = 2,  ///< frames leave without a tag
};

}  // namespace tarvelo

struct brc {
  alignas(void*) std::uint8_t reserved[16];  ///< zero while linked; used to defer the free
  brc* next;                                 ///< next entry of the bucket, null at its end
  net_device* sendif;       ///< the bridge port's device, or the real device under a VLAN port
  net_device* vlan_dev;     ///< the port's VLAN device, null for a plain port
  std::uint32_t last_seen;  ///< jiffies of the last frame this host sent on the bridged path
  std::uint16_t VLANID;     ///< host order; 0 for a plain port
  std::uint8_t tag_mode;    ///< `tarvelo::tag_mode`; any other value is refused when forwarding
  std::uint8_t portal;      ///< portal mark, see `vok_handle::portal_check`
  std::uint16_t bridgeID;   ///< low 16 bits of the bridge device's ifindex
  std::uint8_t dmac[6];     ///< the host's MAC address
  std::uint32_t add_time;   ///< jiffies of the insertion or of the last change of `sendif`
  std::int32_t refcnt;      ///< atomic
};

static_assert(tarvelo::binding_layout(offsetof(brc, next), 16));
static_assert(tarvelo::binding_layout(offsetof(brc, sendif), 20));
static_assert(tarvelo::binding_layout(offsetof(brc, vlan_dev), 24));
static_assert(tarvelo::binding_layout(offsetof(brc, last_seen), 28));
static_assert(tarvelo::binding_layout(offsetof(brc, VLANID), 32));
static_assert(tarvelo::binding_layout(offsetof(brc, tag_mode), 34));
static_assert(tarvelo::binding_layout(offsetof(brc, portal), 35));
static_assert(tarvelo::binding_layout(offsetof(brc, bridgeID), 36));
static_assert(tarvelo::binding_layout(offsetof(brc, dmac), 38));
static_assert(tarvelo::binding_layout(offsetof(brc, add_time), 44));
static_assert(tarvelo::binding_layout(offsetof(brc, refcnt), 48));
static_assert(tarvelo::binding_layout(sizeof(brc), 52));
