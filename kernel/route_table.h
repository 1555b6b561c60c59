// SPDX-License-Identifier: GPL-2.0-only
//
// What the route tables of both families have in common: counted route objects under their
// prefixes, longest prefix first. A family adds its address type and the shape of its routes; a
// route begins with its dst_entry and has `rt_type`, `prefix` and `prefix_length`.
//
// The table holds the first reference of each route in it. Changes are serialised by the table's
// own lock, look-ups are RCU read sides.
#pragma once

#include <cstring>
#include <mutex>

#include "kernel/errno.h"
#include "kernel/prefix_table.h"
#include "kernel/route.h"
#include "kernel/slab.h"

namespace hosted {

template <typename Route>
class route_table {
  using address = decltype(Route::prefix);
  using trie = prefix_table<sizeof(address), Route>;

 public:
  static constexpr unsigned address_bits = 8 * sizeof(address);

  /// True when the prefix is no longer than an address and has no bits below its length.
  [[nodiscard]] static bool is_prefix(const address& prefix, unsigned length) noexcept {
    if (length > address_bits) return false;
    const auto key = key_of(prefix);
    for (unsigned bit = length; bit < address_bits; ++bit) {
      if ((key.bytes[bit / 8] >> (7 - bit % 8) & 1U) != 0) return false;
    }
    return true;
  }

  /// Takes over the caller's reference; drops it when the prefix has a route (-EEXIST) or memory is
  /// short (-ENOMEM).
  [[nodiscard]] int insert(Route* route) noexcept {
    int error = 0;
    {
      const std::scoped_lock guard(lock_);
      error = routes_.insert(key_of(route->prefix), route->prefix_length, route);
    }
    if (error != 0) dst_release(&route->dst);
    return error;
  }

  /// -ESRCH when there is no such route.
  [[nodiscard]] int remove(const address& prefix, unsigned length) noexcept {
    if (length > address_bits) return -ESRCH;
    Route* route = nullptr;
    {
      const std::scoped_lock guard(lock_);
      route = routes_.remove(key_of(prefix), length);
    }
    if (route == nullptr) return -ESRCH;
    dst_release(&route->dst);
    return 0;
  }

  /// Removes all routes, or those that leave by `dev`.
  void flush(const net_device* dev) noexcept {
    const auto leaves_by = [dev](const Route* route) {
      return dev == nullptr || route->dst.dev == dev;
    };
    const std::scoped_lock guard(lock_);
    while (Route* route = routes_.find_if(leaves_by)) {
      Route* removed = routes_.remove(key_of(route->prefix), route->prefix_length);
      dst_release(&removed->dst);
    }
  }

  /// Null when no prefix covers the address; RCU read side.
  [[nodiscard]] Route* find(const address& wanted) const noexcept {
    return routes_.find(key_of(wanted));
  }

  /// The same with a reference for the caller; any context.
  [[nodiscard]] Route* find_and_hold(const address& wanted) const noexcept {
    rcu_read_lock();
    Route* route = find(wanted);
    if (route != nullptr && !atomic_inc_not_zero(&route->dst.refcnt)) route = nullptr;
    rcu_read_unlock();
    return route;
  }

 private:
  static typename trie::key key_of(const address& from) noexcept {
    typename trie::key key;
    std::memcpy(key.bytes, &from, sizeof key.bytes);
    return key;
  }

  std::mutex lock_;
  trie routes_;
};

/// A route with one reference, that holds its device; null without memory. The family fills in what
/// is its own.
template <typename Route>
[[nodiscard]] Route* make_route(rt_class type, net_device* dev,
                                int (*input)(sk_buff* skb)) noexcept {
  auto* route = static_cast<Route*>(kzalloc(sizeof(Route), GFP_ATOMIC));
  if (route == nullptr) return nullptr;
  atomic_set(&route->dst.refcnt, 1);
  if (dev != nullptr) dev_hold(dev);
  route->dst.dev = dev;
  route->dst.input = input;
  route->rt_type = type;
  return route;
}

/// The input function of a family's routes of a type.
[[nodiscard]] int (*input_of(rt_class type, const inet_input_ops& family) noexcept)(sk_buff* skb);
/// Runs `input`, or frees the buffer when there is none.
int run_input(int (*input)(sk_buff* skb), sk_buff* skb);

}  // namespace hosted
