// SPDX-License-Identifier: GPL-2.0-only
#include "module/core/handle.h"

#include "kernel/printk.h"
#include "kernel/spinlock.h"
#include "module/brc/notify.h"
#include "module/brc/table.h"
#include "module/core/memory.h"
#include "module/forward/entry.h"
#include "module/forward/hooks.h"
#include "module/forward/vlan_tag.h"
#include "module/ipc/add.h"
#include "module/ipc/ct_ext.h"
#include "module/ipc/pptp_frames.h"
#include "module/ipc/remove.h"
#include "module/ipc/table.h"
#include "module/ipv6/add.h"
#include "module/ipv6/table.h"
#include "module/proc/registration.h"

namespace tarvelo {

constinit vok_handle kci = {};
constinit vok_handle* const cih = &kci;
constinit vok_handle* const cih_v6 = &kci;

namespace {

constexpr const char* reporter = "_vok_attach";

template <typename Entry>
Entry** allocate_table(u32 buckets) {
  return static_cast<Entry**>(plat_malloc_cleared(buckets * sizeof(Entry*)));
}

spinlock_t* allocate_lock() {
  auto* lock = static_cast<spinlock_t*>(plat_malloc_t(sizeof(spinlock_t)));
  if (lock != nullptr) spin_lock_init(lock);
  return lock;
}

/// Frees what allocate_roots() has allocated so far; a root that is null is passed over.
void free_roots(vok_handle* ci) {
  plat_mfree_t(ci->ipc_lock, sizeof(spinlock_t));
  plat_mfree_t(ci->ipc_v6_lock, sizeof(spinlock_t));
  plat_mfree_t(ci->ipc, ipc_buckets * sizeof(ipc_entry*));
  plat_mfree_t(ci->ipc_v6, ipc_v6_buckets * sizeof(ipc_v6_entry*));
  plat_mfree_t(ci->brc, brc_buckets * sizeof(::brc*));
}

bool allocate_roots(vok_handle* ci) {
  ci->ipc = allocate_table<ipc_entry>(ipc_buckets);
  if (ci->ipc == nullptr) {
    printk("%s: ipc malloc failed\n", reporter);
    return false;
  }
  ci->ipc_v6 = allocate_table<ipc_v6_entry>(ipc_v6_buckets);
  if (ci->ipc_v6 == nullptr) {
    printk("%s: ipc_v6 malloc failed\n", reporter);
    return false;
  }
  ci->brc = allocate_table<::brc>(brc_buckets);
  if (ci->brc == nullptr) {
    printk("%s: brc malloc failed\n", reporter);
    return false;
  }
  ci->ipc_lock = allocate_lock();
  if (ci->ipc_lock == nullptr) return false;
  ci->ipc_v6_lock = allocate_lock();
  return ci->ipc_v6_lock != nullptr;
}

void fill_in_operations(vok_handle* ci) {
  ci->_vok_forward = _vok_forward;
  ci->_vok_forward_eth_protocol = _vok_forward_eth_protocol;
  ci->_ip_conntrack_ipct_add = _ip_conntrack_ipct_add;
  ci->_ip_conntrack_ipct_delete = _ip_conntrack_ipct_delete;
  ci->_vok_ipc_count_get = _vok_ipc_count_get;
  ci->_vok_ipc_lkup = _vok_ipc_lkup;
  ci->_vok_ipc_delete_by_dev = _vok_ipc_delete_by_dev;
  ci->session_delete_ipc = session_delete_ipc;
  ci->__ipv6_conntrack_ipc_add = __ipv6_conntrack_ipc_add;
  ci->_vok_add_vlan_tag = _vok_add_vlan_tag;
  ci->_br_brc_notify = _br_brc_notify;
  ci->_vok_brc_lkup = _vok_brc_lkup;
  ci->_vok_brc_lkup_brid = _vok_brc_lkup_brid;
  ci->_vok_brc_portal_change = _vok_brc_portal_change;
  ci->_vok_register_hook = _vok_register_hook;
  ci->_vok_unregister_hook = _vok_unregister_hook;
  ci->_vok_register_proc_filesystem_entry = _vok_register_proc_filesystem_entry;
  ci->_vok_unregister_proc_filesystem_entry = _vok_unregister_proc_filesystem_entry;
  ci->_vok_nf_conntrack_ext_alloc = _vok_nf_conntrack_ext_alloc;
  ci->_vok_nf_conntrack_ext_free = _vok_nf_conntrack_ext_free;
  ci->_vok_pptp_compress_packet = _vok_pptp_compress_packet;
  ci->_vok_pptp_control_packet = _vok_pptp_control_packet;
}

void clear_record(vok_handle* ci) {
  memset(ci, 0, sizeof(*ci));
}

}  // namespace

vok_handle* _vok_attach(const char* name) {
  clear_record(&kci);
  if (!allocate_roots(&kci)) {
    free_roots(&kci);
    clear_record(&kci);
    return nullptr;
  }
  strncpy(kci.name, name, sizeof(kci.name));
  kci.name[sizeof(kci.name) - 1] = '\0';
  fill_in_operations(&kci);
  kci.enable = 1;
  kci.ready = 1;
  return &kci;
}

void detach(vok_handle* ci) {
  ipv4_table::remove_all(ci);
  ipv6_table::remove_all(ci);
  release_all_bridge_entries(ci);
  // The deferred frees run code of this module: it may not go before they have run.
  rcu_barrier();
  free_roots(ci);
  clear_record(ci);
}

}  // namespace tarvelo
