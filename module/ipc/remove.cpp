// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/remove.h"

#include "kernel/printk.h"
#include "kernel/wire/ip.h"
#include "module/ipc/table.h"

namespace tarvelo {
namespace {

/// The key of the entry that serves packets with this tuple.
[[nodiscard]] flow_key key_of(const nf_conntrack_tuple& tuple) {
  return {tuple.src.u3.ip, tuple.dst.u3.ip, tuple.src.u, tuple.dst.u, tuple.dst.protonum};
}

/// The connection is going and must not be reached through the entry again. The switch is looked at
/// under the lock: once it is set and the orphans are swept, no new orphan may appear.
void cut_off(vok_handle* ci, const flow_key& key) {
  ipc_entry* removed = nullptr;
  spin_lock_bh(ci->ipc_lock);
  if (ipc_entry** link = find_flow(ci, key); link != nullptr) {
    if (read_once(ci->enable) != 0) {
      removed = take_flow(ci, link);
    } else {
      (*link)->flags |= ipc_flag::orphaned;
      (*link)->ct = nullptr;
    }
  }
  spin_unlock_bh(ci->ipc_lock);
  if (removed != nullptr) release_entry(removed);
}

void forget_direction(vok_handle* ci, const nf_conntrack_tuple& tuple) {
  const flow_key key = key_of(tuple);
  if (read_once(ci->enable) == 0) {
    cut_off(ci, key);
  } else {
    // Not every direction was ever added, so that nothing is found is normal.
    (void)_vok_ipc_delete(ci, key.sip, key.dip, key.proto, key.sport, key.dport);
  }
}

/// A PPPoE session that is re-labelled on its way through has a second device, which only the
/// connection's record knows.
[[nodiscard]] bool relabels_session_of(const ipc_entry& entry, const net_device* dev) {
  if ((entry.flags & ipc_flag::pppoe_in_out) == 0) return false;
  if (entry.ct == nullptr || entry.ct->vok_ext == nullptr) return false;
  return read_once(entry.ct->vok_ext->dev) == dev;
}

}  // namespace

int _ip_conntrack_ipct_delete(vok_handle* ci, nf_conn* ct) {
  if (ci == nullptr || ci->ipc == nullptr || ct->vok_ext == nullptr) return 0;
  if ((read_once(ct->vok_ext->flags) & ct_ext_flag::ever_added) == 0) return 0;
  const nf_conntrack_tuple& original = ct->tuple[IP_CT_DIR_ORIGINAL];
  const u8 proto = original.dst.protonum;
  if (proto != wire::ip_protocol::tcp && proto != wire::ip_protocol::udp) return 0;
  if (original.src.l3num != NFPROTO_IPV4) return 0;
  forget_direction(ci, original);
  forget_direction(ci, ct->tuple[IP_CT_DIR_REPLY]);
  return 0;
}

int _vok_ipc_delete_by_dev(vok_handle* ci, net_device* dev) {
  if (ci == nullptr) {
    printk("%s: Invalid input (ci %p)", "_vok_ipc_delete_by_dev", static_cast<void*>(ci));
    return -1;
  }
  remove_matching(ci, [dev](const ipc_entry& entry) {
    return entry.sendif == dev || (entry.ppp_dev != nullptr && entry.ppp_dev == dev) ||
           relabels_session_of(entry, dev);
  });
  return 0;
}

void switch_fast_path(vok_handle* ci, u8 enable) {
  spin_lock_bh(ci->ipc_lock);
  write_once(ci->enable, enable);
  spin_unlock_bh(ci->ipc_lock);
  if (enable == 0) return;
  remove_matching(ci,
                  [](const ipc_entry& entry) { return (entry.flags & ipc_flag::orphaned) != 0; });
}

}  // namespace tarvelo
