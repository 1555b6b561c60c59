// SPDX-License-Identifier: GPL-2.0-only
//
// The router that a fuzz target feeds: every kind of device, the module, and a driver that looks at
// what is sent and frees it. Each input gets a router of its own, so that an input that fails does
// so again by itself. The clock starts shortly before its wrap.
//
// When the router has gone, all that was taken must have been given back. Whatever is wrong ends
// the program with a line that says so; that is what libFuzzer looks for.
#pragma once

#include <memory>
#include <string>

#include "fuzz/conversations.h"
#include "kernel/fault.h"
#include "kernel/module_loader.h"
#include "stack/router.h"

namespace tarvelo::fuzz {

/// Prints the reason and ends the program.
[[noreturn]] void fail(const std::string& reason);

class fuzzed_router {
 public:
  fuzzed_router();
  ~fuzzed_router();
  fuzzed_router(const fuzzed_router&) = delete;
  fuzzed_router& operator=(const fuzzed_router&) = delete;

  /// Takes a frame of any length from one on; one that is longer than a buffer is cut.
  stack::receive_verdict receive(const sent_frame& frame);
  stack::receive_verdict receive(const std::string& port, const u8* data, std::size_t size);

  void load_module();
  /// Nothing without one.
  void unload_module() { module_.reset(); }
  [[nodiscard]] bool has_module() const { return module_ != nullptr; }

  /// Carries a connection of every kind until the fast path has it; all of them, or fail().
  void open_conversations();

  /// Moves the clock on and runs what falls due.
  void pass(u32 milliseconds);
  /// Fails when the module's tables are not in order.
  void check() const;

  [[nodiscard]] stack::router& router() { return *router_; }

 private:
  fault::outstanding before_;
  std::unique_ptr<stack::router> router_;
  std::unique_ptr<loaded_module> module_;
};

}  // namespace tarvelo::fuzz
