// SPDX-License-Identifier: GPL-2.0-only
//
// What the pieces of the stack share: the devices, the tracker, what waits, and the counters.
//
// The kernel calls the stack back without a context (the input functions of routes, timers), so
// the pieces reach this record through core(). There is one, made and ended by the router. All of
// it is guarded by the stack's lock, but for what says otherwise.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "kernel/context.h"
#include "stack/bridge.h"
#include "stack/config.h"
#include "stack/conntrack.h"
#include "stack/device_table.h"
#include "stack/icmp_limit.h"
#include "stack/ppp_table.h"
#include "stack/reassembly.h"
#include "stack/router.h"

namespace tarvelo::stack {

/// What is counted before the stack's lock is taken: one for each processor, written by it alone.
struct alignas(64) receive_counters {
  u64 offered;
  u64 fast;
  u64 dropped;
};

/// One writer, its processor; a reader on another may be late but sees whole numbers.
inline void count_once(u64& counter) noexcept {
  write_once(counter, read_once(counter) + 1);
}

struct stack_core {
  explicit stack_core(const limits& bounds) : table_limits(bounds), reassembly(bounds) {}

  const limits table_limits;
  device_table devices;                          ///< constant while the router runs: no lock
  std::vector<std::unique_ptr<bridge>> bridges;  ///< likewise constant
  ppp_table ppp;                                 ///< likewise constant
  std::array<receive_counters, hosted::max_processors> received{};  ///< no lock
  bool offering = false;  ///< frames go to the module first; read_once(), no lock

  std::unique_ptr<connection_tracker> tracker;
  reassembly_table reassembly;
  /// The frame under way, as it was offered to the fast path. For the first packet found in it.
  offered_frame as_offered{};
  icmp_limit error_limit;
  u16 next_datagram_id = 1;  ///< identification of the next packet that the router makes
  u64 slow_forwarded = 0;
  u64 neighbours_refused = 0;
  u64 icmp_errors_sent = 0;
};

/// The router's. Only while there is one.
[[nodiscard]] stack_core& core() noexcept;
/// For the router: null takes the record away. The caller keeps it.
void set_core(stack_core* record) noexcept;

/// Frees a packet that goes no further.
[[nodiscard]] receive_verdict discard(sk_buff* skb, code_place at = code_place::here()) noexcept;

}  // namespace tarvelo::stack
