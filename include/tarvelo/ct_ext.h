// SPDX-License-Identifier: GPL-2.0-only
//
// The record that the module hangs on every tracked connection. It remembers which directions were
// added to the connection tables and at which hook, which VLAN each direction leaves by, and the
// marks that keep a connection off the fast path.
//
// Lives from the connection's creation to its destruction. The module's operations read and write
// it without a lock of its own; writes made while adding an entry happen under the table's lock.
// The kernel side may set `ct_ext_flag::never_add` and may clear the direction and hook bits when a
// path changes, never `ct_ext_flag::ever_added`.
#pragma once

#include "tarvelo/fwd.h"

namespace tarvelo::ct_ext_flag {

inline constexpr std::uint32_t original_added = 0x00000001;
inline constexpr std::uint32_t reply_added = 0x00000002;
inline constexpr std::uint32_t original_at_pre_routing = 0x00000008;
inline constexpr std::uint32_t original_at_post_routing = 0x00000080;
inline constexpr std::uint32_t reply_at_pre_routing = 0x00010000;
inline constexpr std::uint32_t reply_at_post_routing = 0x00100000;
inline constexpr std::uint32_t never_add = 0x40000000;   ///< set by the kernel side only
inline constexpr std::uint32_t ever_added = 0x80000000;  ///< never cleared again

/// All that says "this direction was added at this hook": cleared when a connection has to be added
/// anew on another path.
inline constexpr std::uint32_t direction_marks =
    original_added | reply_added | original_at_pre_routing | original_at_post_routing |
    reply_at_pre_routing | reply_at_post_routing;

}  // namespace tarvelo::ct_ext_flag

/// The VLAN that one direction of a connection leaves by.
struct vok_ct_ext_vlan {
  std::uint16_t vid;
  std::uint16_t reserved;
  net_device* real_dev;  ///< the device under the VLAN device; not referenced
};

struct vok_ct_ext {
  std::uint32_t flags;      ///< `tarvelo::ct_ext_flag`
  net_device* dev;          ///< first VLAN input or point-to-point output met; set once
  std::uint8_t double_nat;  ///< 1: translated at both ends, never accelerated
  std::uint8_t reserved[3];
  vok_ct_ext_vlan vlan[2];  ///< by direction: 0 original, 1 reply
  std::uint32_t add_calls;  ///< calls of the add operation for this connection
};

static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, flags), 0));
static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, dev), 4));
static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, double_nat), 8));
static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, vlan[0].vid), 12));
static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, vlan[0].real_dev), 16));
static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, vlan[1].vid), 20));
static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, vlan[1].real_dev), 24));
static_assert(tarvelo::binding_layout(offsetof(vok_ct_ext, add_calls), 28));
static_assert(tarvelo::binding_layout(sizeof(vok_ct_ext), 32));
