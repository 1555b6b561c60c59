// SPDX-License-Identifier: GPL-2.0-only
//
// What the kernel's own files tell the checks; see kernel/checked.h. Called in checked builds only.
#pragma once

#include "kernel/checked.h"

namespace hosted {

/// The outermost softirq scope of the calling thread begins, and ends.
void checked_softirq_enter(code_place at) noexcept;
void checked_softirq_leave(code_place at) noexcept;

/// Ends the program with `what` and the place where softirq context began when the caller is in it.
void checked_not_in_softirq(const char* what, code_place at) noexcept;

/// The caller might take `lock` here, though it need not this time: its place in the lock order is
/// checked and remembered. A lock that the caller holds is allowed.
void checked_might_lock(const void* lock, code_place at) noexcept;

/// Holds a place in the lock order that is not a lock, so that what is taken inside comes after it.
/// May be nested.
class checked_scope {
 public:
  checked_scope(const void* place, code_place at) noexcept;
  ~checked_scope();
  checked_scope(const checked_scope&) = delete;
  checked_scope& operator=(const checked_scope&) = delete;

 private:
  const void* place_;
  [[maybe_unused]] code_place at_;  ///< only the checked kernel tells places
  bool outermost_;
};

/// Memory is freed: the locks in it are forgotten; one that is held ends the program.
void checked_memory_freed(const void* memory, std::size_t size) noexcept;

}  // namespace hosted
