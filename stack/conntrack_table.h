// SPDX-License-Identifier: GPL-2.0-only
//
// The table of confirmed connections, found by the tuple of either direction.
//
// Chained hashing over a fixed number of buckets; the links are inside the connections, so that
// insertion cannot fail. The hash is keyed with a random number, because its input is chosen by
// whoever sends packets: with a known one a sender could pile thousands of connections into one
// chain. Nothing visible depends on the order within a chain.
//
// All under the stack's lock. The table owns one reference of each connection in it.
#pragma once

#include <vector>

#include "stack/conntrack_record.h"

namespace tarvelo::stack {

struct found_connection {
  connection* owner;  ///< null: none
  ip_conntrack_dir dir;
};

class conntrack_table {
 public:
  /// Sized for `capacity` connections; holds more if it must. Throws bad_alloc.
  explicit conntrack_table(u32 capacity);

  /// No reference is taken.
  [[nodiscard]] found_connection find(const nf_conntrack_tuple& tuple) const noexcept;
  [[nodiscard]] bool contains(const nf_conntrack_tuple& tuple) const noexcept {
    return find(tuple).owner != nullptr;
  }

  /// Takes one reference of the caller's. Both tuples must be free.
  void insert(connection& c) noexcept;
  /// The table's reference is the caller's again.
  void remove(connection& c) noexcept;

  /// A connection from bucket `*cursor` on, which moves past empty buckets; null at the end. For
  /// whoever removes them all, with a cursor that began at 0.
  [[nodiscard]] connection* any_from(std::size_t* cursor) const noexcept;

  /// Any context.
  [[nodiscard]] u32 size() const noexcept { return read_once(size_); }

 private:
  [[nodiscard]] std::size_t bucket_of(const nf_conntrack_tuple& tuple) const noexcept;

  std::vector<tuple_link*> buckets_;
  u64 key_;
  u32 size_ = 0;
};

/// A hash of everything that identifies a tuple; the same key gives the same value, always.
[[nodiscard]] u64 hash_tuple(const nf_conntrack_tuple& tuple, u64 key) noexcept;

}  // namespace tarvelo::stack
