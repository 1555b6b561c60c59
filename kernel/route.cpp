// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/route.h"

#include <cstring>

#include "kernel/errno.h"
#include "kernel/route_table.h"
#include "kernel/slab.h"
#include "kernel/wire/ip.h"

namespace {

constexpr int default_ttl = 64;

constinit hosted::route_table<rtable> table;
constinit inet_input_ops input_ops{};

/// Of either family: a route begins with its dst_entry.
void free_route(callback_head* head) {
  auto* dst =
      reinterpret_cast<dst_entry*>(reinterpret_cast<char*>(head) - offsetof(dst_entry, rcu));
  if (dst->dev != nullptr) dev_put(dst->dev);
  kfree(dst);
}

int refuse(sk_buff* skb) {
  kfree_skb(skb);
  return -ENETUNREACH;
}

}  // namespace

int hosted::run_input(int (*input)(sk_buff*), sk_buff* skb) {
  return input != nullptr ? input(skb) : refuse(skb);
}

int (*hosted::input_of(rt_class type, const inet_input_ops& family) noexcept)(sk_buff*) {
  switch (type) {
    case RTN_UNICAST:
      return family.forward;
    case RTN_LOCAL:
    case RTN_BROADCAST:
      return family.local_deliver;
    case RTN_UNREACHABLE:
      return refuse;
  }
  return refuse;
}

extern "C" {

int sysctl_ip_default_ttl = default_ttl;

int ip_forward(sk_buff* skb) {
  return hosted::run_input(read_once(input_ops.forward), skb);
}

int ip_local_deliver(sk_buff* skb) {
  return hosted::run_input(read_once(input_ops.local_deliver), skb);
}

void inet_set_input(const inet_input_ops* ops) noexcept {
  write_once(input_ops.forward, ops != nullptr ? ops->forward : nullptr);
  write_once(input_ops.local_deliver, ops != nullptr ? ops->local_deliver : nullptr);
}

int ip_route_add(u32 prefix, u8 prefix_length, rt_class type, u32 gateway,
                 net_device* dev) noexcept {
  if (!table.is_prefix(prefix, prefix_length)) return -EINVAL;
  constexpr inet_input_ops ipv4_input = {ip_forward, ip_local_deliver};
  auto* rt = hosted::make_route<rtable>(type, dev, hosted::input_of(type, ipv4_input));
  if (rt == nullptr) return -ENOMEM;
  rt->prefix_length = prefix_length;
  rt->prefix = prefix;
  rt->gateway = gateway;
  return table.insert(rt);
}

int ip_route_del(u32 prefix, u8 prefix_length) noexcept {
  return table.remove(prefix, prefix_length);
}

void ip_route_flush(const net_device* dev) noexcept {
  table.flush(dev);
}

int ip_route_input_noref(sk_buff* skb, u32 daddr, u32 /*saddr*/, u8 /*tos*/,
                         net_device* /*dev*/) noexcept {
  if constexpr (kernel_checked) checked_rcu_held(code_place::here());
  rtable* rt = table.find(daddr);
  if (rt == nullptr) return -ENETUNREACH;
  skb_dst_drop(skb);
  skb_dst_set_noref(skb, &rt->dst);
  return 0;
}

rtable* ip_route_output_flow(const flowi4* flow) noexcept {
  return table.find_and_hold(flow->daddr);
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
