// SPDX-License-Identifier: GPL-2.0-only
//
// Fault injection and leak accounting, for tests. Counted as allocations: kmalloc, kzalloc, slab
// objects and caches, socket buffers, proc directories and files, seq-file buffers.
#pragma once

#include "kernel/types.h"

namespace fault {

/// Makes the n-th allocation from now (1 the next one) fail, once. 0 switches injection off.
/// Allocations of all threads count.
void fail_allocation(u32 n) noexcept;
/// Allocations since the last call of fail_allocation().
[[nodiscard]] u32 allocations_seen() noexcept;
/// True when the failure asked for has happened.
[[nodiscard]] bool fired() noexcept;

/// What is out and not yet returned. Deferred frees count until they have run (rcu_barrier()).
struct outstanding {
  u64 allocations;  ///< kmalloc and kzalloc blocks
  u64 slab_objects;
  u64 slab_caches;
  u64 buffers;  ///< socket buffers
  u64 proc_entries;
  u64 connections;

  friend bool operator==(const outstanding&, const outstanding&) = default;
};
[[nodiscard]] outstanding now() noexcept;

/// Makes copy_from_user() fail while `fail` is true.
void fail_user_copies(bool fail) noexcept;

}  // namespace fault
