// SPDX-License-Identifier: GPL-2.0-only
//
// The module's handle, held for as long as a call through it takes. Any context; no lock.
#pragma once

#include "kernel/fast_path.h"
#include "kernel/rcupdate.h"

namespace tarvelo::stack {

/// The published handle, inside an RCU read side that unloading waits for; false when no module is
/// loaded.
class published_handle {
 public:
  published_handle() noexcept {
    rcu_read_lock();
    handle_ = rcu_dereference(kcih);
  }
  ~published_handle() { rcu_read_unlock(); }
  published_handle(const published_handle&) = delete;
  published_handle& operator=(const published_handle&) = delete;

  [[nodiscard]] explicit operator bool() const noexcept { return handle_ != nullptr; }
  [[nodiscard]] vok_handle* get() const noexcept { return handle_; }
  vok_handle* operator->() const noexcept { return handle_; }

 private:
  vok_handle* handle_;
};

}  // namespace tarvelo::stack
