// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/netdevice.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "kernel/account.h"
#include "kernel/errno.h"
#include "kernel/netdevice_internal.h"
#include "kernel/skbuff.h"

using hosted::device;
using hosted::device_of;
using hosted::account::kind;

namespace {

constexpr u32 default_mtu = 1500;

constinit std::mutex registry_lock;  ///< serialises changes of the list; readers use RCU
constinit device* registry = nullptr;
constinit int last_ifindex = 0;

hosted::device_counters& own_counters(net_device* dev) noexcept {
  return device_of(dev)->counters[hosted::own_processor];
}

/// Adds to a word that only this processor writes.
void bump(u64& word, u64 by) noexcept {
  write_once(word, static_cast<u64>(read_once(word) + by));
}

template <typename Predicate>
net_device* find_rcu(Predicate matches) noexcept {
  for (device* d = rcu_dereference(registry); d != nullptr; d = rcu_dereference(d->next)) {
    if (matches(&d->dev)) return &d->dev;
  }
  return nullptr;
}

/// Inline in what every packet goes through.
inline void count_tx(net_device* dev, u32 bytes) noexcept {
  hosted::device_counters& c = own_counters(dev);
  bump(c.tx_packets, 1);
  bump(c.tx_bytes, bytes);
}

void put_after_grace_period(callback_head* head) {
  auto* const base = reinterpret_cast<char*>(head) - offsetof(net_device, rcu);
  dev_put(reinterpret_cast<net_device*>(base));
}

}  // namespace

namespace hosted {

int start_xmit(sk_buff* skb) noexcept {
  net_device* dev = skb->dev;
  if constexpr (kernel_checked) checked_skb_live(skb, code_place::here());
  if ((read_once(dev->flags) & IFF_UP) == 0 || dev->netdev_ops == nullptr) return -ENETDOWN;
  const u32 length = skb->len;
  const int result = dev->netdev_ops->ndo_start_xmit(skb, dev);
  if (result != NETDEV_TX_OK) [[unlikely]]
    return result;
  count_tx(dev, length);
  return NETDEV_TX_OK;
}

}  // namespace hosted

extern "C" {

net_device* alloc_netdev(const char* name, u16 type) noexcept {
  if (!hosted::account::may_allocate()) return nullptr;
  auto* d = new (std::nothrow) device{};
  if (d == nullptr) return nullptr;
  hosted::account::made(kind::allocation);
  std::strncpy(d->dev.name, name, IFNAMSIZ - 1);
  d->dev.type = type;
  d->dev.mtu = default_mtu;
  atomic_set(&d->dev.refcnt, 1);
  return &d->dev;
}

void hosted_netdev_free(net_device* dev) noexcept {
  device* d = device_of(dev);
  if (d->real_dev != nullptr) dev_put(d->real_dev);
  ppp_detach_channel(dev);
  hosted::account::gone(kind::allocation);
  delete d;
}

void free_netdev(net_device* dev) noexcept {
  if (dev == nullptr) return;
  dev_put(dev);
}

int register_netdevice(net_device* dev) noexcept {
  const std::scoped_lock guard(registry_lock);
  device** tail = &registry;
  for (; *tail != nullptr; tail = &(*tail)->next) {
    if (std::strcmp((*tail)->dev.name, dev->name) == 0) return -EEXIST;
  }
  dev->ifindex = ++last_ifindex;
  device_of(dev)->registered = true;
  rcu_assign_pointer(*tail, device_of(dev));
  return 0;
}

void unregister_netdevice(net_device* dev) noexcept {
  device* d = device_of(dev);
  {
    const std::scoped_lock guard(registry_lock);
    if (!d->registered) return;
    d->registered = false;
    device** link = &registry;
    while (*link != d)
      link = &(*link)->next;
    rcu_assign_pointer(*link, d->next);
  }
  dev_close(dev);
  call_rcu(&dev->rcu, put_after_grace_period);
}

void dev_open(net_device* dev) noexcept {
  __atomic_fetch_or(&dev->flags, IFF_UP, __ATOMIC_RELEASE);
}

void dev_close(net_device* dev) noexcept {
  __atomic_fetch_and(&dev->flags, ~IFF_UP, __ATOMIC_RELEASE);
}

net_device* dev_get_by_name_rcu(const char* name) noexcept {
  return find_rcu([name](const net_device* dev) { return std::strcmp(dev->name, name) == 0; });
}

net_device* dev_get_by_index_rcu(int ifindex) noexcept {
  return find_rcu([ifindex](const net_device* dev) { return dev->ifindex == ifindex; });
}

int dev_queue_xmit(sk_buff* skb) noexcept {
  net_device* dev = skb->dev;
  int result = hosted::start_xmit(skb);
  if (result == NETDEV_TX_OK) return result;
  bump(own_counters(dev).tx_dropped, 1);
  kfree_skb(skb);
  return result < 0 ? result : -EIO;
}

int dev_hard_start_xmit(sk_buff* skb) noexcept {
  return hosted::start_xmit(skb);
}

void dev_count_rx(net_device* dev, u32 bytes) noexcept {
  hosted::device_counters& c = own_counters(dev);
  bump(c.rx_packets, 1);
  bump(c.rx_bytes, bytes);
}

void dev_count_tx(net_device* dev, u32 bytes) noexcept {
  count_tx(dev, bytes);
}

void dev_count_rx_dropped(net_device* dev) noexcept {
  bump(own_counters(dev).rx_dropped, 1);
}

rtnl_link_stats64 dev_stats(const net_device* dev) noexcept {
  rtnl_link_stats64 sum{};
  for (const hosted::device_counters& c : device_of(dev)->counters) {
    sum.rx_packets += read_once(c.rx_packets);
    sum.tx_packets += read_once(c.tx_packets);
    sum.rx_bytes += read_once(c.rx_bytes);
    sum.tx_bytes += read_once(c.tx_bytes);
    sum.rx_dropped += read_once(c.rx_dropped);
    sum.tx_dropped += read_once(c.tx_dropped);
  }
  return sum;
}

}  // extern "C"
