// SPDX-License-Identifier: GPL-2.0-only
//
// The handle: the one record through which the kernel reaches the module. It holds the operations
// that the kernel calls, the roots of the lookup tables, their locks and counts, and two switches.
//
// Published by storing its address in the kernel-exported pointer `kcih`, as the last step of
// loading; withdrawn as the first step of unloading. While it is published the operations and table
// roots do not change. The kernel reads the record by position, so every field keeps its offset,
// the slots that stay null included.
//
// Results: 0 success, -1 failure unless an operation says otherwise. Addresses and ports are in
// network byte order throughout.
#pragma once

#include "tarvelo/brc.h"
#include "tarvelo/fwd.h"
#include "tarvelo/hook.h"
#include "tarvelo/ipc_entry.h"
#include "tarvelo/proc_entry.h"

struct ipc_v6_entry;
struct spinlock;
struct vok_handle;

struct vok_handle {
  /// While not 0, the bridged fast path takes frames only from senders whose bridge cache entry has
  /// a `portal` mark. Written by the kernel side.
  std::uint8_t portal_check;
  std::uint8_t reserved_1[3];

  /// Offers a received frame; softirq context. `data` at the Ethernet header, or at the IP header
  /// for a point-to-point device. 0: the buffer is gone (sent or freed). -1: carry on with it, its
  /// data as it was and nothing held. The last argument is ignored.
  int (*_vok_forward)(vok_handle* ci, sk_buff* skb, unsigned long arg);
  /// The same for a buffer whose Ethernet header has already been pulled.
  int (*_vok_forward_eth_protocol)(vok_handle* ci, sk_buff* skb, unsigned long arg);

  /// Reports a packet of a tracked connection at a NAT hook; softirq context. `hooknum` is the
  /// netfilter hook, `ctinfo` the packet's `ip_conntrack_info`, `tuple` the translation made at
  /// this hook or null. May attach a route to the packet.
  void (*_ip_conntrack_ipct_add)(vok_handle* ci, sk_buff* skb, unsigned int hooknum, nf_conn* ct,
                                 int ctinfo, const nf_conntrack_tuple* tuple);
  /// Reports that a connection is being destroyed; any context, no lock of the module held. Always
  /// returns 0.
  int (*_ip_conntrack_ipct_delete)(vok_handle* ci, nf_conn* ct);

  /// Number of IPv4 entries, or -2 without a handle or table.
  int (*_vok_ipc_count_get)(vok_handle* ci);
  void* reserved_24;

  /// Finds an IPv4 entry, or null. No reference is taken: the entry is valid within one RCU read
  /// side. With `check_brc` an entry older than its bridge cache entry is not found.
  ipc_entry* (*_vok_ipc_lkup)(vok_handle* ci, std::uint32_t sip, std::uint32_t dip,
                              std::uint8_t proto, std::uint16_t sport, std::uint16_t dport,
                              std::uint8_t check_brc);
  /// Removes every entry that uses a device; process context, before the device is freed.
  int (*_vok_ipc_delete_by_dev)(vok_handle* ci, net_device* dev);
  /// Removes the entries of an L2TP session; process context.
  void (*session_delete_ipc)(vok_handle* ci, l2tp_session* session);

  /// Reports a packet of a tracked IPv6 connection at the forward hook; softirq context.
  void (*__ipv6_conntrack_ipc_add)(vok_handle* ci, sk_buff* skb);

  /// Inserts the 802.1Q tag of the slot in `fast_flags` bits 9 and 10; softirq context.
  void (*_vok_add_vlan_tag)(vok_handle* ci, sk_buff* skb, nf_conn* ct);

  /// Reports a change of a bridge's forwarding database. `group` is the rtnetlink group (3), `type`
  /// the message type (28 new or changed, 29 removed).
  void (*_br_brc_notify)(vok_handle* ci, unsigned int group, int type, net_bridge_fdb_entry* fdb);
  /// Finds a bridge cache entry by MAC, or null. No reference is taken: valid within one RCU read
  /// side.
  ::brc* (*_vok_brc_lkup)(vok_handle* ci, const std::uint8_t* mac);
  void* reserved_56;
  ::brc* (*_vok_brc_lkup_brid)(vok_handle* ci, const std::uint8_t* mac, std::uint32_t bridgeID);
  void* reserved_64;
  /// Sets the portal mark of a cached host. -1 when no entry has that MAC.
  int (*_vok_brc_portal_change)(vok_handle* ci, const std::uint8_t* mac, std::uint32_t portal);

  std::uint8_t enable;  ///< fast path switched on; the kernel offers frames only while not 0
  std::uint8_t ready;
  std::uint8_t reserved_74[2];

  /// Process context; may sleep. Registering returns a negative error when interrupted.
  int (*_vok_register_hook)(vok_handle* ci, vok_hook_ops* ops);
  int (*_vok_unregister_hook)(vok_handle* ci, vok_hook_ops* ops);

  /// Creates a directory of control files below the module's own; process context. Null on failure.
  proc_dir_entry* (*_vok_register_proc_filesystem_entry)(vok_handle* ci,
                                                         const vok_proc_entry* entries, int count,
                                                         const char* name);
  void (*_vok_unregister_proc_filesystem_entry)(vok_handle* ci, const vok_proc_entry* entries,
                                                int count, const char* name, proc_dir_entry* dir);

  /// Gives a new connection its extension record and takes it back; any context.
  int (*_vok_nf_conntrack_ext_alloc)(nf_conn* ct);
  int (*_vok_nf_conntrack_ext_free)(nf_conn* ct);

  /// Tests on a PPP frame, given its first byte: 1 or 0. At least 4 bytes must be readable.
  int (*_vok_pptp_compress_packet)(const std::uint8_t* p);
  int (*_vok_pptp_control_packet)(const std::uint8_t* p);

  ipc_entry** ipc;     ///< 8192 bucket heads
  spinlock* ipc_lock;  ///< guards the IPv4 chains and `ipc_count`
  std::uint32_t ipc_count;
  ipc_v6_entry** ipc_v6;  ///< 8192 bucket heads
  spinlock* ipc_v6_lock;  ///< guards the IPv6 chains and `ipc_v6_count`
  std::uint32_t ipc_v6_count;
  ::brc** brc;   ///< 128 bucket heads, guarded by the module's own rwlock
  char name[8];  ///< NUL-terminated
};

static_assert(tarvelo::binding_layout(offsetof(vok_handle, portal_check), 0));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_forward), 4));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_forward_eth_protocol), 8));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _ip_conntrack_ipct_add), 12));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _ip_conntrack_ipct_delete), 16));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_ipc_count_get), 20));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, reserved_24), 24));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_ipc_lkup), 28));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_ipc_delete_by_dev), 32));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, session_delete_ipc), 36));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, __ipv6_conntrack_ipc_add), 40));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_add_vlan_tag), 44));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _br_brc_notify), 48));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_brc_lkup), 52));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, reserved_56), 56));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_brc_lkup_brid), 60));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, reserved_64), 64));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_brc_portal_change), 68));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, enable), 72));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, ready), 73));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_register_hook), 76));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_unregister_hook), 80));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_register_proc_filesystem_entry),
                                      84));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_unregister_proc_filesystem_entry),
                                      88));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_nf_conntrack_ext_alloc), 92));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_nf_conntrack_ext_free), 96));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_pptp_compress_packet), 100));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, _vok_pptp_control_packet), 104));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, ipc), 108));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, ipc_lock), 112));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, ipc_count), 116));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, ipc_v6), 120));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, ipc_v6_lock), 124));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, ipc_v6_count), 128));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, brc), 132));
static_assert(tarvelo::binding_layout(offsetof(vok_handle, name), 136));
static_assert(tarvelo::binding_layout(sizeof(vok_handle), 144));
