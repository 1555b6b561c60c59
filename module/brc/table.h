// SPDX-License-Identifier: GPL-2.0-only
//
// The bridge cache: for each host that a bridge has learnt, the device a frame for it leaves by and
// how its VLAN tag is treated. Keyed by (MAC address, bridge): one host may be known in several
// bridges.
//
// Guarded by `brc_lock`, a reader-writer lock taken with bottom halves off, held only while one
// bucket is walked or one entry is changed. An entry is freed an RCU grace period after its last
// reference has gone, so what a lookup returns is good for the rest of the caller's read side. It
// may change meanwhile: the packet paths therefore take a copy of what they need (`bridge_host`)
// while they hold the lock. No other lock is taken inside it.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/spinlock.h"
#include "module/core/handle.h"
#include "tarvelo/brc.h"

namespace tarvelo {

extern rwlock_t brc_lock;

/// Where a host is, as one lookup saw it.
struct bridge_host {
  ::brc* entry;  ///< valid within the caller's RCU read side
  net_device* sendif;
  net_device* vlan_dev;
  u16 VLANID;
  u16 bridgeID;
  u8 tag_mode;
  u8 portal;
};

/// The identity of a bridge in the cache.
[[nodiscard]] inline u16 bridge_id(const net_device* bridge) {
  return static_cast<u16>(bridge->ifindex);
}

/// Published lookups; any context. The first entry with that MAC (and bridge), or null; no
/// reference is taken.
[[nodiscard]] ::brc* _vok_brc_lkup(vok_handle* ci, const u8* mac);
[[nodiscard]] ::brc* _vok_brc_lkup_brid(vok_handle* ci, const u8* mac, u32 bridgeID);

/// The bucket of a host. The first byte stays out of the sum: it is the same for all hosts of one
/// vendor anyway.
[[nodiscard]] inline u32 brc_bucket(const u8* mac) {
  return (u32{mac[1]} + mac[2] + mac[3] + mac[4] + mac[5]) & (brc_buckets - 1);
}

/// False when no host with that MAC is known, as one look at its bucket shows.
[[nodiscard]] inline bool may_know_host(vok_handle* ci, const u8* mac) {
  return ci->brc != nullptr && read_once(ci->brc[brc_bucket(mac)]) != nullptr;
}

/// The same for the packet paths; softirq context. False when there is no such host. A bucket that
/// is empty is seen without taking the lock.
[[nodiscard]] bool find_host(vok_handle* ci, const u8* mac, bridge_host* host);
[[nodiscard]] bool find_host_in_vlan(vok_handle* ci, const u8* mac, u16 vid, bridge_host* host);
[[nodiscard]] bool find_host_in_bridge(vok_handle* ci, const u8* mac, u16 bridgeID,
                                       bridge_host* host);
/// Also takes a reference on the entry (put_bridge_entry()). False when the entry is on its way
/// out.
[[nodiscard]] bool hold_host_in_bridge(vok_handle* ci, const u8* mac, u16 bridgeID,
                                       bridge_host* host);

/// Inserts a copy of `wanted`, with one reference, the table's. 0, or -1 when nothing was inserted:
/// no table, no memory (logged), or the key is there already.
int _vok_brc_add(vok_handle* ci, const ::brc* wanted);
/// Changes the host's entry to what `wanted` says: the entry of the same bridge if there is one, or
/// else the first of that MAC. A host seen in VLANs of two bridges gets a further entry instead.
void _vok_brc_update(vok_handle* ci, const ::brc* wanted);
/// Unlinks the entry and drops the table's reference; connections that refer to it keep it alive.
void _vok_brc_delete(vok_handle* ci, const u8* mac, u32 bridgeID);
/// Sets the portal mark (the low 8 bits) of the first entry with that MAC. -1 when there is none.
int _vok_brc_portal_change(vok_handle* ci, const u8* mac, u32 portal);

/// Drops a reference; the last one frees the entry. Any context.
void put_bridge_entry(::brc* entry);

/// Empties the table, dropping the table's references.
void release_all_bridge_entries(vok_handle* ci);

}  // namespace tarvelo
