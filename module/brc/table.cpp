// SPDX-License-Identifier: GPL-2.0-only
#include "module/brc/table.h"

#include "kernel/atomic.h"
#include "kernel/jiffies.h"
#include "kernel/printk.h"
#include "module/core/chain.h"
#include "module/core/memory.h"
#include "module/forward/mac.h"

namespace tarvelo {

constinit rwlock_t brc_lock = {0};

namespace {

[[nodiscard]] auto with_mac(const u8* mac) {
  return [mac](const ::brc& entry) { return same_mac(entry.dmac, mac); };
}

[[nodiscard]] auto with_mac_in_bridge(const u8* mac, u32 bridgeID) {
  return [mac, bridgeID](const ::brc& entry) {
    return same_mac(entry.dmac, mac) && entry.bridgeID == bridgeID;
  };
}

[[nodiscard]] auto with_mac_in_vlan(const u8* mac, u16 vid) {
  return
      [mac, vid](const ::brc& entry) { return same_mac(entry.dmac, mac) && entry.VLANID == vid; };
}

/// Runs `use` on the first match while `brc_lock` is held for reading; null when there is none.
template <typename Match, typename Use>
::brc* look_up(vok_handle* ci, const u8* mac, Match match, Use use) {
  if (ci == nullptr || !may_know_host(ci, mac)) return nullptr;
  ::brc** head = &ci->brc[brc_bucket(mac)];
  read_lock_bh(&brc_lock);
  ::brc** link = find_link(head, match);
  ::brc* found = link != nullptr ? *link : nullptr;
  if (found != nullptr && !use(found)) found = nullptr;
  read_unlock_bh(&brc_lock);
  return found;
}

constexpr auto as_it_is = [](::brc*) { return true; };

[[nodiscard]] auto copied_to(bridge_host* host) {
  return [host](::brc* entry) {
    *host = {entry,           entry->sendif,   entry->vlan_dev, entry->VLANID,
             entry->bridgeID, entry->tag_mode, entry->portal};
    return true;
  };
}

[[nodiscard]] atomic_t* references(::brc* entry) {
  return reinterpret_cast<atomic_t*>(&entry->refcnt);
}

/// Copies what a notification may change; `brc_lock` held for writing.
void change_in_place(::brc* entry, const ::brc* wanted) {
  if (entry->sendif != wanted->sendif) write_once(entry->add_time, u32{jiffies});
  entry->sendif = wanted->sendif;
  entry->vlan_dev = wanted->vlan_dev;
  entry->VLANID = wanted->VLANID;
  entry->tag_mode = wanted->tag_mode;
  entry->bridgeID = wanted->bridgeID;
  write_once(entry->last_seen, u32{0});
}

/// One host in VLANs of two bridges is two entries; otherwise the one entry follows the host.
[[nodiscard]] bool belongs_beside(const ::brc* entry, const ::brc* wanted) {
  return entry->VLANID != 0 && wanted->VLANID != 0 && entry->bridgeID != wanted->bridgeID;
}

}  // namespace

::brc* _vok_brc_lkup(vok_handle* ci, const u8* mac) {
  return look_up(ci, mac, with_mac(mac), as_it_is);
}

::brc* _vok_brc_lkup_brid(vok_handle* ci, const u8* mac, u32 bridgeID) {
  return look_up(ci, mac, with_mac_in_bridge(mac, bridgeID), as_it_is);
}

bool find_host(vok_handle* ci, const u8* mac, bridge_host* host) {
  return look_up(ci, mac, with_mac(mac), copied_to(host)) != nullptr;
}

bool find_host_in_vlan(vok_handle* ci, const u8* mac, u16 vid, bridge_host* host) {
  return look_up(ci, mac, with_mac_in_vlan(mac, vid), copied_to(host)) != nullptr;
}

bool find_host_in_bridge(vok_handle* ci, const u8* mac, u16 bridgeID, bridge_host* host) {
  return look_up(ci, mac, with_mac_in_bridge(mac, bridgeID), copied_to(host)) != nullptr;
}

bool hold_host_in_bridge(vok_handle* ci, const u8* mac, u16 bridgeID, bridge_host* host) {
  auto hold = [host](::brc* entry) {
    return atomic_inc_not_zero(references(entry)) && copied_to(host)(entry);
  };
  return look_up(ci, mac, with_mac_in_bridge(mac, bridgeID), hold) != nullptr;
}

int _vok_brc_add(vok_handle* ci, const ::brc* wanted) {
  if (ci == nullptr || wanted == nullptr || ci->brc == nullptr) return -1;
  if (_vok_brc_lkup_brid(ci, wanted->dmac, wanted->bridgeID) != nullptr) return -1;
  auto* fresh = static_cast<::brc*>(plat_malloc_t(sizeof(::brc)));
  if (fresh == nullptr) {
    printk("%s: Out of memory allocating brc entry\n", "_vok_brc_add");
    return -1;
  }
  *fresh = *wanted;

  ::brc** head = &ci->brc[brc_bucket(fresh->dmac)];
  write_lock_bh(&brc_lock);
  // The key may have appeared since it was looked up.
  const bool duplicate =
      find_link(head, with_mac_in_bridge(fresh->dmac, fresh->bridgeID)) != nullptr;
  if (!duplicate) {
    fresh->refcnt = 1;
    fresh->add_time = jiffies;
    link_first(head, fresh);
  }
  write_unlock_bh(&brc_lock);
  if (!duplicate) return 0;
  plat_mfree_t(fresh, sizeof(::brc));
  return -1;
}

void _vok_brc_update(vok_handle* ci, const ::brc* wanted) {
  if (ci == nullptr || wanted == nullptr || ci->brc == nullptr) return;
  ::brc** head = &ci->brc[brc_bucket(wanted->dmac)];
  write_lock_bh(&brc_lock);
  ::brc** link = find_link(head, with_mac_in_bridge(wanted->dmac, wanted->bridgeID));
  if (link == nullptr) link = find_link(head, with_mac(wanted->dmac));
  const bool found = link != nullptr;
  const bool beside = found && belongs_beside(*link, wanted);
  if (found && !beside) change_in_place(*link, wanted);
  write_unlock_bh(&brc_lock);

  if (!found) {
    printk("%s: Bridge cache entry entry  not found\n", "_vok_brc_update");
  } else if (beside) {
    // Refused only for want of memory, which is logged there, or when another report was faster.
    (void)_vok_brc_add(ci, wanted);
  }
}

void _vok_brc_delete(vok_handle* ci, const u8* mac, u32 bridgeID) {
  if (ci == nullptr || mac == nullptr || ci->brc == nullptr) return;
  write_lock_bh(&brc_lock);
  ::brc** link = find_link(&ci->brc[brc_bucket(mac)], with_mac_in_bridge(mac, bridgeID));
  ::brc* removed = link != nullptr ? unlink(link) : nullptr;
  write_unlock_bh(&brc_lock);
  if (removed != nullptr) put_bridge_entry(removed);
}

int _vok_brc_portal_change(vok_handle* ci, const u8* mac, u32 portal) {
  if (mac == nullptr || ci == nullptr || ci->brc == nullptr) return -1;
  write_lock_bh(&brc_lock);
  ::brc** link = find_link(&ci->brc[brc_bucket(mac)], with_mac(mac));
  if (link != nullptr) (*link)->portal = static_cast<u8>(portal);
  write_unlock_bh(&brc_lock);
  if (link != nullptr) return 0;
  printk("%s: Bridge cache entry entry not found\n", "_vok_brc_portal_change");
  return -1;
}

void put_bridge_entry(::brc* entry) {
  if (atomic_dec_and_test(references(entry))) free_after_grace_period(entry);
}

void release_all_bridge_entries(vok_handle* ci) {
  if (ci->brc == nullptr) return;
  write_lock_bh(&brc_lock);
  const auto removed = unlink_matching(ci->brc, brc_buckets, [](const ::brc&) { return true; });
  write_unlock_bh(&brc_lock);
  release_each(removed, put_bridge_entry);
}

}  // namespace tarvelo
