// SPDX-License-Identifier: GPL-2.0-only
//
// Neighbours: the hardware address of a next hop on a device. The tables and their entries are the
// kernel's; resolving, confirming and expiring them is the stack's.
//
// An entry is counted (table plus holders) and freed after a grace period. State and address change
// under the entry's lock; readers of both use the functions below.
#pragma once

#include "kernel/atomic.h"
#include "kernel/list.h"
#include "kernel/netdevice.h"
#include "kernel/rcupdate.h"
#include "kernel/spinlock.h"
#include "kernel/timer.h"
#include "kernel/types.h"

inline constexpr u8 NUD_INCOMPLETE = 0x01;
inline constexpr u8 NUD_REACHABLE = 0x02;
inline constexpr u8 NUD_STALE = 0x04;
inline constexpr u8 NUD_DELAY = 0x08;
inline constexpr u8 NUD_PROBE = 0x10;
inline constexpr u8 NUD_FAILED = 0x20;
inline constexpr u8 NUD_NOARP = 0x40;
inline constexpr u8 NUD_PERMANENT = 0x80;
inline constexpr u8 NUD_VALID =
    NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_PROBE | NUD_STALE | NUD_DELAY;

struct neigh_table;

struct neighbour {
  neighbour* next;  ///< bucket chain
  neigh_table* tbl;
  net_device* dev;
  u8 primary_key[16];  ///< address, network byte order; the first `key_len` bytes
  u8 nud_state;        ///< NUD_ bits; read_once()
  u8 ha[wire::mac_length];
  bool hh_valid;  ///< the cached Ethernet header is built
  u8 hh_data[wire::ethernet_length];
  spinlock_t lock;
  atomic_t refcnt;
  u32 updated;          ///< jiffies of the last change of state
  u32 confirmed;        ///< jiffies of the last proof that it answers
  timer_list timer;     ///< the stack's
  sk_buff* queue_head;  ///< what waits for the address; the stack's, under its lock
  sk_buff* queue_tail;
  u32 queue_length;
  u32 probes;
  callback_head rcu;
};

extern "C" {
extern neigh_table arp_tbl;  ///< keys of 4 bytes
extern neigh_table nd_tbl;   ///< keys of 16 bytes

/// Finds an entry and takes a reference (neigh_release()), or null. Any context.
[[nodiscard]] neighbour* neigh_lookup(neigh_table* table, const void* key,
                                      net_device* dev) noexcept;
/// Finds or makes an entry (state 0, no address), with a reference; null without memory or when the
/// table is full (neigh_table_limit()).
[[nodiscard]] neighbour* neigh_create(neigh_table* table, const void* key,
                                      net_device* dev) noexcept;
void neigh_release(neighbour* neigh) noexcept;
/// Sets state and, with `lladdr` not null, the hardware address, and rebuilds the cached header.
/// True when the hardware address of a valid entry changed.
bool neigh_update(neighbour* neigh, const u8* lladdr, u8 state) noexcept;
/// Unlinks an entry; the table's reference is dropped.
void neigh_remove(neighbour* neigh) noexcept;
/// Unlinks all entries of a device, or all entries when `dev` is null.
void neigh_flush_dev(neigh_table* table, const net_device* dev) noexcept;
/// Calls `visit` for each entry, in no order; entries may be removed by it.
void neigh_for_each(neigh_table* table, void (*visit)(neighbour* neigh, void* context),
                    void* context) noexcept;
void neigh_table_limit(neigh_table* table, u32 entries) noexcept;

/// Copies the cached Ethernet header (destination, source, type). False when it is not built.
[[nodiscard]] bool neigh_hh_copy(const neighbour* neigh, u8 header[wire::ethernet_length]) noexcept;
/// Copies the hardware address.
void neigh_ha_snapshot(u8 ha[wire::mac_length], const neighbour* neigh) noexcept;
}
