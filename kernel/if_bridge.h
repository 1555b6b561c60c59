// SPDX-License-Identifier: GPL-2.0-only
//
// Bridges: the bridge device, its ports, and the forwarding database that says behind which port a
// MAC address lives. Forwarding, flooding, and reporting changes to the fast path are the stack's.
//
// Ports are added and removed in process context by one caller at a time. The forwarding database
// is looked up inside an RCU read side on any processor; it changes under the bridge's hash lock,
// in any context. An entry that has left it, and a port, is freed after a grace period. In place,
// an entry changes its port and its time, nothing else.
//
// The database is bounded twice, because whoever is on the wire chooses the addresses: in all, so
// that invented senders do not use up the memory, and for each bucket, so that they cannot make
// every look-up a long walk. An address that does not fit is not learnt; frames to it are flooded.
#pragma once

#include "kernel/netdevice.h"
#include "kernel/rcupdate.h"
#include "kernel/spinlock.h"
#include "kernel/types.h"

inline constexpr u8 BR_STATE_DISABLED = 0;
inline constexpr u8 BR_STATE_LISTENING = 1;
inline constexpr u8 BR_STATE_LEARNING = 2;
inline constexpr u8 BR_STATE_FORWARDING = 3;
inline constexpr u8 BR_STATE_BLOCKING = 4;

/// How a change of the forwarding database is announced: the group and the two message types.
inline constexpr unsigned RTNLGRP_NEIGH = 3;
inline constexpr int RTM_NEWNEIGH = 28;
inline constexpr int RTM_DELNEIGH = 29;

inline constexpr u32 br_fdb_buckets = 256;
inline constexpr u32 br_fdb_bucket_limit = 64;  ///< entries, local ones apart

struct net_bridge;
struct net_bridge_fdb_entry;

struct net_bridge_port {
  net_bridge* br;
  net_device* dev;  ///< one reference held
  u8 state;         ///< BR_STATE_; read_once()
  net_bridge_port* next;
  callback_head rcu;
};

struct net_bridge_fdb_entry {
  net_bridge_fdb_entry* next;
  net_bridge_port* dst;  ///< rcu_dereference(); null only for an address of the bridge device
  u8 addr[wire::mac_length];
  bool is_local;  ///< an address of the bridge or of its ports: never moves, never ages
  u32 updated;    ///< jiffies when a frame last came from there; read_once()
  callback_head rcu;
};

struct net_bridge {
  net_device* dev;             ///< the bridge device; one reference held
  net_bridge_port* port_list;  ///< in the order of addition; rcu_dereference()
  spinlock_t hash_lock;        ///< guards the database
  u32 fdb_count;               ///< learnt entries; under the lock
  u32 fdb_limit;               ///< the most there may be
  net_bridge_fdb_entry* hash[br_fdb_buckets];
  callback_head rcu;
};

/// What seeing a sender did to the database.
enum class br_fdb_outcome : u8 {
  refreshed,  ///< known behind that port
  learnt,     ///< new
  moved,      ///< was behind another port
  own,        ///< an address of the bridge itself: not learnt
  refused,    ///< no room, no memory, or a port that does not learn
};

struct br_fdb_update_result {
  br_fdb_outcome outcome;
  net_bridge_fdb_entry* entry;  ///< valid within the caller's RCU read side; null when refused
};

/// What a walk does with the entry it has shown.
enum class br_fdb_fate : u8 {
  keep,
  remove,
};
/// Judges one entry, which it may report before it answers `remove`. Called with the hash lock
/// held: it must not call the database, nor take a lock under which that is called.
using br_fdb_judge = br_fdb_fate (*)(net_bridge_fdb_entry* entry, void* context);

extern "C" {
/// A bridge without ports; marks the device as a bridge, so before it is registered. `fdb_limit` is
/// the number of addresses that it learns at the most. Null without memory. Process context.
[[nodiscard]] net_bridge* br_alloc(net_device* dev, u32 fdb_limit) noexcept;
/// Removes the ports and the database, and frees the bridge after a grace period. Null is allowed.
void br_free(net_bridge* br) noexcept;

/// Makes a device a port, in state BR_STATE_DISABLED; null without memory. A device is a port of
/// one bridge at the most, which the caller sees to.
[[nodiscard]] net_bridge_port* br_port_add(net_bridge* br, net_device* dev) noexcept;
/// Takes a port away, and with it, unreported, what is left of the database behind it.
void br_port_del(net_bridge_port* port) noexcept;
/// The port that a device is, or null; RCU read side.
[[nodiscard]] net_bridge_port* br_port_find(const net_bridge* br, const net_device* dev) noexcept;
void br_port_set_state(net_bridge_port* port, u8 state) noexcept;

/// Null when the address is not known; RCU read side.
[[nodiscard]] net_bridge_fdb_entry* br_fdb_find(const net_bridge* br, const u8* addr) noexcept;
/// Adds an address of the bridge device (`port` null) or of a port. It counts against no limit. 0,
/// -EEXIST when the address is known, learnt or not, or -ENOMEM.
[[nodiscard]] int br_fdb_insert_local(net_bridge* br, net_bridge_port* port,
                                      const u8* addr) noexcept;
/// A frame from `addr`, not a group address, has come in on `port`: learns, moves or refreshes the
/// entry, if the port is in learning or forwarding state. Takes the lock only when the entry is new
/// or moves. RCU read side.
br_fdb_update_result br_fdb_update(net_bridge_port* port, const u8* addr) noexcept;
/// Removes an address; the entry, valid within the caller's RCU read side, or null when there was
/// none.
net_bridge_fdb_entry* br_fdb_delete(net_bridge* br, const u8* addr) noexcept;

/// Shows every entry, local ones too, to `judge`, and removes those it says; null removes all. The
/// number removed.
u32 br_fdb_sweep(net_bridge* br, br_fdb_judge judge, void* context) noexcept;
/// The same for those learnt entries only that no frame has come from for `max_age` jiffies.
u32 br_fdb_age(net_bridge* br, u32 max_age, br_fdb_judge judge, void* context) noexcept;
}
