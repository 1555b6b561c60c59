// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/route6.h"

#include "kernel/errno.h"
#include "kernel/route_table.h"

namespace {

constexpr wire::in6_addr unspecified = {};

constinit hosted::route_table<rt6_info> table;
constinit inet_input_ops input_ops{};

}  // namespace

extern "C" {

int ip6_forward(sk_buff* skb) {
  return hosted::run_input(read_once(input_ops.forward), skb);
}

int ip6_input(sk_buff* skb) {
  return hosted::run_input(read_once(input_ops.local_deliver), skb);
}

void inet6_set_input(const inet_input_ops* ops) noexcept {
  write_once(input_ops.forward, ops != nullptr ? ops->forward : nullptr);
  write_once(input_ops.local_deliver, ops != nullptr ? ops->local_deliver : nullptr);
}

int ip6_route_add(const wire::in6_addr* prefix, u8 prefix_length, rt_class type,
                  const wire::in6_addr* gateway, net_device* dev) noexcept {
  if (!table.is_prefix(*prefix, prefix_length)) return -EINVAL;
  constexpr inet_input_ops ipv6_input = {ip6_forward, ip6_input};
  auto* rt = hosted::make_route<rt6_info>(type, dev, hosted::input_of(type, ipv6_input));
  if (rt == nullptr) return -ENOMEM;
  rt->prefix_length = prefix_length;
  rt->prefix = *prefix;
  rt->rt6i_gateway = gateway != nullptr ? *gateway : unspecified;
  return table.insert(rt);
}

int ip6_route_del(const wire::in6_addr* prefix, u8 prefix_length) noexcept {
  return table.remove(*prefix, prefix_length);
}

void ip6_route_flush(const net_device* dev) noexcept {
  table.flush(dev);
}

int ip6_route_input(sk_buff* skb, const wire::in6_addr* daddr) noexcept {
  if constexpr (kernel_checked) checked_rcu_held(code_place::here());
  rt6_info* rt = table.find(*daddr);
  if (rt == nullptr) return -ENETUNREACH;
  skb_dst_drop(skb);
  skb_dst_set_noref(skb, &rt->dst);
  return 0;
}

rt6_info* ip6_route_output(const flowi6* flow) noexcept {
  return table.find_and_hold(flow->daddr);
}

const wire::in6_addr* rt6_nexthop(const rt6_info* rt, const wire::in6_addr* daddr) noexcept {
  const net_device* dev = rt->dst.dev;
  const bool addressless =
      dev != nullptr && (read_once(dev->flags) & (IFF_POINTOPOINT | IFF_LOOPBACK)) != 0;
  if (addressless) return &unspecified;
  return rt->rt6i_gateway == unspecified ? daddr : &rt->rt6i_gateway;
}

}  // extern "C"
