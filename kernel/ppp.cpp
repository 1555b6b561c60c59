// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/ppp.h"

#include "kernel/errno.h"
#include "kernel/netdevice_internal.h"
#include "kernel/slab.h"

namespace {

/// A channel record on its way out: readers may still be copying it.
struct channel_record {
  ppp_conn_info info;  ///< first member
  callback_head rcu;
};

void free_record(callback_head* head) {
  kfree(reinterpret_cast<char*>(head) - offsetof(channel_record, rcu));
}

void replace(net_device* dev, channel_record* with) noexcept {
  ppp_conn_info* const fresh = with != nullptr ? &with->info : nullptr;
  ppp_conn_info* const old =
      __atomic_exchange_n(&hosted::device_of(dev)->channel, fresh, __ATOMIC_ACQ_REL);
  if (old != nullptr) call_rcu(&reinterpret_cast<channel_record*>(old)->rcu, free_record);
}

}  // namespace

extern "C" {

int ppp_get_conn_pkt_info(net_device* dev, ppp_conn_info* info) noexcept {
  rcu_read_lock();
  const ppp_conn_info* channel = rcu_dereference(hosted::device_of(dev)->channel);
  if (channel != nullptr) *info = *channel;
  rcu_read_unlock();
  return channel != nullptr ? 0 : -ENODEV;
}

int ppp_attach_channel(net_device* dev, const ppp_conn_info* info) noexcept {
  auto* record = static_cast<channel_record*>(kmalloc(sizeof(channel_record), GFP_ATOMIC));
  if (record == nullptr) return -ENOMEM;
  record->info = *info;
  replace(dev, record);
  return 0;
}

void ppp_detach_channel(net_device* dev) noexcept {
  replace(dev, nullptr);
}

}  // extern "C"
