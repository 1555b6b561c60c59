// SPDX-License-Identifier: GPL-2.0-only
//
// Keeps the kernel log to itself while the router is set up. An error that ends the set-up is one
// line to the user, and what loading and unloading said on the way is dropped with it; once all is
// well it is printed, and the log goes its usual way again.
//
// One at a time, made before whatever logs and gone after it.
#pragma once

#include <string>

#include "kernel/printk.h"

namespace tarvelo::app {

class held_log {
 public:
  held_log() { klog::set_sink(&held_log::keep, this); }
  ~held_log() { klog::set_sink(nullptr, nullptr); }
  held_log(const held_log&) = delete;
  held_log& operator=(const held_log&) = delete;

  /// The set-up has succeeded.
  void release();

 private:
  static void keep(void* self, klog::level at, const char* text) noexcept;

  std::string text_;
};

}  // namespace tarvelo::app
