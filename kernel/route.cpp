// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/route.h"

#include <cstring>
#include <mutex>

#include "kernel/errno.h"
#include "kernel/prefix_table.h"
#include "kernel/slab.h"
#include "kernel/wire/endian.h"
#include "kernel/wire/ip.h"

namespace {

constexpr unsigned ipv4_bits = 32;
constexpr int default_ttl = 64;

using route_table = hosted::prefix_table<4, rtable>;

constinit std::mutex table_lock;  ///< serialises changes; look-ups use RCU
constinit route_table table;
constinit inet_input_ops input_ops{};

route_table::key key_of(u32 address) noexcept {
  route_table::key k;
  std::memcpy(k.bytes, &address, sizeof k.bytes);
  return k;
}

u32 mask_of(u8 prefix_length) noexcept {
  return prefix_length == 0 ? 0 : wire::htonl(~u32{0} << (ipv4_bits - prefix_length));
}

rtable* route_of(dst_entry* dst) noexcept {
  return reinterpret_cast<rtable*>(dst);
}

void free_route(callback_head* head) {
  auto* dst =
      reinterpret_cast<dst_entry*>(reinterpret_cast<char*>(head) - offsetof(dst_entry, rcu));
  if (dst->dev != nullptr) dev_put(dst->dev);
  kfree(route_of(dst));
}

int run_input(int (*input)(sk_buff*), sk_buff* skb) {
  if (input != nullptr) return input(skb);
  kfree_skb(skb);
  return -ENETUNREACH;
}

int refuse(sk_buff* skb) {
  kfree_skb(skb);
  return -ENETUNREACH;
}

int (*input_of(rt_class type))(sk_buff*) {
  switch (type) {
    case RTN_UNICAST:
      return ip_forward;
    case RTN_LOCAL:
    case RTN_BROADCAST:
      return ip_local_deliver;
    case RTN_UNREACHABLE:
      return refuse;
  }
  return refuse;
}

rtable* make_route(u32 prefix, u8 prefix_length, rt_class type, u32 gateway,
                   net_device* dev) noexcept {
  auto* rt = static_cast<rtable*>(kzalloc(sizeof(rtable), GFP_ATOMIC));
  if (rt == nullptr) return nullptr;
  atomic_set(&rt->dst.refcnt, 1);
  if (dev != nullptr) dev_hold(dev);
  rt->dst.dev = dev;
  rt->dst.input = input_of(type);
  rt->rt_type = type;
  rt->prefix_length = prefix_length;
  rt->prefix = prefix;
  rt->gateway = gateway;
  return rt;
}

}  // namespace

extern "C" {

int sysctl_ip_default_ttl = default_ttl;

int ip_forward(sk_buff* skb) {
  return run_input(read_once(input_ops.forward), skb);
}

int ip_local_deliver(sk_buff* skb) {
  return run_input(read_once(input_ops.local_deliver), skb);
}

void inet_set_input(const inet_input_ops* ops) noexcept {
  write_once(input_ops.forward, ops != nullptr ? ops->forward : nullptr);
  write_once(input_ops.local_deliver, ops != nullptr ? ops->local_deliver : nullptr);
}

int ip_route_add(u32 prefix, u8 prefix_length, rt_class type, u32 gateway,
                 net_device* dev) noexcept {
  if (prefix_length > ipv4_bits || (prefix & ~mask_of(prefix_length)) != 0) return -EINVAL;
  rtable* rt = make_route(prefix, prefix_length, type, gateway, dev);
  if (rt == nullptr) return -ENOMEM;
  int error = 0;
  {
    const std::scoped_lock guard(table_lock);
    error = table.insert(key_of(prefix), prefix_length, rt);
  }
  if (error != 0) dst_release(&rt->dst);
  return error;
}

int ip_route_del(u32 prefix, u8 prefix_length) noexcept {
  if (prefix_length > ipv4_bits) return -ESRCH;
  rtable* rt = nullptr;
  {
    const std::scoped_lock guard(table_lock);
    rt = table.remove(key_of(prefix), prefix_length);
  }
  if (rt == nullptr) return -ESRCH;
  dst_release(&rt->dst);
  return 0;
}

void ip_route_flush(const net_device* dev) noexcept {
  const auto leaves_by = [dev](const rtable* rt) { return dev == nullptr || rt->dst.dev == dev; };
  const std::scoped_lock guard(table_lock);
  while (rtable* rt = table.find_if(leaves_by)) {
    rtable* removed = table.remove(key_of(rt->prefix), rt->prefix_length);
    dst_release(&removed->dst);
  }
}

int ip_route_input_noref(sk_buff* skb, u32 daddr, u32 /*saddr*/, u8 /*tos*/,
                         net_device* /*dev*/) noexcept {
  if constexpr (kernel_checked) checked_rcu_held(code_place::here());
  rtable* rt = table.find(key_of(daddr));
  if (rt == nullptr) return -ENETUNREACH;
  skb_dst_drop(skb);
  skb_dst_set_noref(skb, &rt->dst);
  return 0;
}

rtable* ip_route_output_flow(const flowi4* flow) noexcept {
  rcu_read_lock();
  rtable* rt = table.find(key_of(flow->daddr));
  if (rt != nullptr && !atomic_inc_not_zero(&rt->dst.refcnt)) rt = nullptr;
  rcu_read_unlock();
  return rt;
}

u32 rt_next_hop(const rtable* rt) noexcept {
  return rt->gateway;
}

u32 dst_metric_hoplimit(const dst_entry* dst) noexcept {
  return reinterpret_cast<const rtable*>(dst)->hop_limit;
}

void hosted_dst_release(dst_entry* dst, const code_place* at) noexcept {
  if constexpr (kernel_checked) {
    if (atomic_read(&dst->refcnt) <= 0) {
      checked_fault("route reference dropped below zero", *at, {});
    }
  }
  if (atomic_dec_and_test(&dst->refcnt)) call_rcu(&dst->rcu, free_route);
}

void ip_send_check(void* iph) noexcept {
  auto* ip = static_cast<wire::iphdr*>(iph);
  ip->check = wire::be16::from_raw(0);
  const auto* bytes = static_cast<const u8*>(iph);
  u32 sum = 0;
  for (u32 i = 0; i < ip->header_length(); i += sizeof(u16)) {
    u16 word;
    std::memcpy(&word, bytes + i, sizeof word);
    sum += word;
  }
  sum = (sum & 0xFFFF) + (sum >> 16);
  sum = (sum & 0xFFFF) + (sum >> 16);
  ip->check = wire::be16::from_raw(static_cast<u16>(~sum));
}

}  // extern "C"
