// SPDX-License-Identifier: GPL-2.0-only
//
// Beginning, confirming, refreshing and ending connections: the table together with the timers and
// references of what is in it.
//
// A connection in the table has a running timer and one reference of the table's. The timer's
// function takes the stack's lock, and may be waiting for it on another processor just when the
// connection is ended for another reason. So the table's reference is dropped by whoever stops the
// timer, or by its function when it can no longer be stopped; until then the record stays valid.
// The fast path moves the timers of connections without the lock, but never revives one.
//
// All under the stack's lock but for the counters.
#pragma once

#include "stack/conntrack_table.h"

namespace tarvelo::stack {

class connection_life {
 public:
  /// Lets at most `limit` connections live. Throws bad_alloc.
  explicit connection_life(u32 limit) : table_(limit), limit_(limit) {}
  /// All have been ended.
  ~connection_life() = default;
  connection_life(const connection_life&) = delete;
  connection_life& operator=(const connection_life&) = delete;

  /// No reference is taken. One whose time has run out is not found, and not in the table after.
  [[nodiscard]] found_connection find(const nf_conntrack_tuple& tuple) noexcept;

  /// A new connection with one reference, the caller's; not in the table. Null, and counted, when
  /// there are too many or there is no memory.
  [[nodiscard]] connection* begin(const nf_conntrack_tuple& original) noexcept;

  /// Puts a connection into the table and starts its timer. False when one of its tuples is taken.
  [[nodiscard]] bool confirm(connection& c) noexcept;

  /// A packet has been seen; does nothing to a connection that is not in the table.
  static void refresh(connection& c) noexcept;

  /// Takes a connection out of the table. It may be gone afterwards.
  static void end(connection& c) noexcept;
  void end_all() noexcept;

  [[nodiscard]] const conntrack_table& table() const noexcept { return table_; }
  /// Any context.
  [[nodiscard]] u64 confirmed() const noexcept { return read_once(confirmed_); }
  [[nodiscard]] u64 refused() const noexcept { return read_once(refused_); }

 private:
  conntrack_table table_;
  u32 limit_;
  u64 confirmed_ = 0;
  u64 refused_ = 0;
};

/// Adds one to a counter that is changed under a lock and read without.
inline void count_one(u64& counter) noexcept {
  write_once(counter, counter + 1);
}

}  // namespace tarvelo::stack
