// SPDX-License-Identifier: GPL-2.0-only
//
// The module's one handle record: filled by _vok_attach(), published by init_module() through
// `kcih`, emptied by detach().
//
// While the record is published its slots and table roots do not change, so operations read them
// without a lock. Control files, which exist before the record is published and after it is
// withdrawn, reach it through published_handle() only.
#pragma once

#include "kernel/fast_path.h"
#include "kernel/rcupdate.h"

namespace tarvelo {

inline constexpr u32 ipc_buckets = 8192;
inline constexpr u32 ipc_v6_buckets = 8192;
inline constexpr u32 brc_buckets = 128;

extern vok_handle kci;
extern vok_handle* const cih;     ///< &kci, for IPv4 code that was not given the handle
extern vok_handle* const cih_v6;  ///< &kci, for IPv6 code that was not given the handle

/// Allocates tables and locks and fills in the record; process context, nothing published yet.
/// Null on failure, with nothing left behind.
[[nodiscard]] vok_handle* _vok_attach(const char* name);

/// Releases every entry and the tables, and clears the record; process context. The record must
/// have been withdrawn and no caller may be inside an operation. Returns when all that the entries
/// deferred has run.
void detach(vok_handle* ci);

/// The published handle, or null; valid until the caller leaves its RCU read side.
[[nodiscard]] inline vok_handle* published_handle() {
  return rcu_dereference(kcih);
}

/// An RCU read side for the life of the object.
class rcu_read_side {
 public:
  explicit rcu_read_side(code_place at = code_place::here()) : at_(at) { rcu_read_lock(at_); }
  ~rcu_read_side() { rcu_read_unlock(at_); }
  rcu_read_side(const rcu_read_side&) = delete;
  rcu_read_side& operator=(const rcu_read_side&) = delete;

 private:
  code_place at_;
};

}  // namespace tarvelo
