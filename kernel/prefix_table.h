// SPDX-License-Identifier: GPL-2.0-only
//
// A longest-prefix table: a binary trie with path compression over addresses of `Bytes` bytes, so
// that IPv4 and IPv6 routes share it.
//
// Each node stands for a prefix; its children's prefixes are longer and start with it. A node has a
// value, or two children and no value. Readers walk inside an RCU read side, without a lock;
// writers hold the owner's lock. A change is one store of a pointer, and a node that goes is freed
// after a grace period. The table does not own the values.
#pragma once

#include <cstring>

#include "kernel/errno.h"
#include "kernel/rcupdate.h"
#include "kernel/slab.h"
#include "kernel/types.h"

namespace hosted {

template <unsigned Bytes, typename Value>
class prefix_table {
 public:
  struct key {
    u8 bytes[Bytes];
  };

  /// The value of the longest prefix of `address`, or null. RCU read side.
  [[nodiscard]] Value* find(const key& address) const noexcept {
    Value* best = nullptr;
    const node* n = rcu_dereference(root_);
    while (n != nullptr && common_bits(n->prefix, address, n->length) == n->length) {
      if (Value* value = rcu_dereference(n->value)) best = value;
      if (n->length == Bytes * 8) break;
      n = rcu_dereference(n->child[bit(address, n->length)]);
    }
    return best;
  }

  /// 0, -EEXIST when the prefix has a value, or -ENOMEM, and then nothing has changed.
  [[nodiscard]] int insert(const key& prefix, unsigned length, Value* value) noexcept {
    node** link = descend(prefix, length);
    node* at = *link;
    if (at != nullptr && at->length == length && covers(*at, prefix)) {
      if (at->value != nullptr) return -EEXIST;
      rcu_assign_pointer(at->value, value);
      return 0;
    }
    node* leaf = make(prefix, length, value);
    if (leaf == nullptr) return -ENOMEM;
    if (at == nullptr) {
      rcu_assign_pointer(*link, leaf);
      return 0;
    }
    return insert_above(link, at, leaf);
  }

  /// Takes the value of exactly this prefix out; null when there is none.
  [[nodiscard]] Value* remove(const key& prefix, unsigned length) noexcept {
    node** above = nullptr;  // link to the parent
    node** link = &root_;
    while (*link != nullptr && (*link)->length < length && covers(**link, prefix)) {
      above = link;
      link = &(*link)->child[bit(prefix, (*link)->length)];
    }
    node* n = *link;
    if (n == nullptr || n->length != length || !covers(*n, prefix)) return nullptr;
    Value* value = n->value;
    rcu_assign_pointer(n->value, static_cast<Value*>(nullptr));
    prune(link);
    if (above != nullptr) prune(above);
    return value;
  }

  /// A value that `matches`, or null. Owner's lock.
  template <typename Predicate>
  [[nodiscard]] Value* find_if(Predicate matches) const noexcept {
    return find_if(root_, matches);
  }

 private:
  struct node {
    key prefix;
    u8 length;  ///< bits
    node* child[2];
    Value* value;
    callback_head rcu;
  };

  static unsigned bit(const key& k, unsigned position) noexcept {
    return k.bytes[position / 8] >> (7 - position % 8) & 1U;
  }

  /// Leading bits that two keys share, at most `most`.
  static unsigned common_bits(const key& a, const key& b, unsigned most) noexcept {
    for (unsigned i = 0; i < Bytes && i * 8 < most; ++i) {
      const unsigned difference = a.bytes[i] ^ b.bytes[i];
      if (difference == 0) continue;
      const unsigned shared = i * 8 + static_cast<unsigned>(__builtin_clz(difference)) - 24;
      return shared < most ? shared : most;
    }
    return most;
  }

  static bool covers(const node& n, const key& k) noexcept {
    return common_bits(n.prefix, k, n.length) == n.length;
  }

  static node* make(const key& prefix, unsigned length, Value* value) noexcept {
    auto* n = static_cast<node*>(kzalloc(sizeof(node), GFP_ATOMIC));
    if (n == nullptr) return nullptr;
    n->prefix = prefix;
    n->length = static_cast<u8>(length);
    n->value = value;
    return n;
  }

  static void free_node(callback_head* head) {
    kfree(reinterpret_cast<char*>(head) - offsetof(node, rcu));
  }

  /// The link where a prefix belongs: to nothing, to its own node, or to the first node that does
  /// not cover it.
  node** descend(const key& prefix, unsigned length) noexcept {
    node** link = &root_;
    while (*link != nullptr && (*link)->length < length && covers(**link, prefix)) {
      link = &(*link)->child[bit(prefix, (*link)->length)];
    }
    return link;
  }

  /// Puts `leaf` where `at` is: above it when its prefix covers it, else beside it under a new node
  /// without a value.
  int insert_above(node** link, node* at, node* leaf) noexcept {
    const unsigned most = leaf->length < at->length ? leaf->length : at->length;
    const unsigned shared = common_bits(leaf->prefix, at->prefix, most);
    node* top = leaf;
    if (shared < leaf->length) {
      top = make(leaf->prefix, shared, nullptr);
      if (top == nullptr) {
        kfree(leaf);
        return -ENOMEM;
      }
      top->child[bit(leaf->prefix, shared)] = leaf;
    }
    top->child[bit(at->prefix, shared)] = at;
    rcu_assign_pointer(*link, top);
    return 0;
  }

  /// Takes a node out that is good for nothing: no value and at most one child.
  static void prune(node** link) noexcept {
    node* n = *link;
    if (n == nullptr || n->value != nullptr) return;
    if (n->child[0] != nullptr && n->child[1] != nullptr) return;
    rcu_assign_pointer(*link, n->child[0] != nullptr ? n->child[0] : n->child[1]);
    call_rcu(&n->rcu, free_node);
  }

  template <typename Predicate>
  static Value* find_if(const node* n, Predicate matches) noexcept {
    if (n == nullptr) return nullptr;
    if (n->value != nullptr && matches(n->value)) return n->value;
    Value* found = find_if(n->child[0], matches);
    return found != nullptr ? found : find_if(n->child[1], matches);
  }

  node* root_ = nullptr;
};

}  // namespace hosted
