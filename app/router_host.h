// SPDX-License-Identifier: GPL-2.0-only
//
// The router and the module together, put up and taken down in the right order: the router first,
// because it wants to know when the module comes; the module unloads first, while the router can
// still take back what the module has hung on its connections.
//
// Process context. Faults are input_error, naming the device's place in the configuration where
// they are about one.
#pragma once

#include <memory>
#include <string>

#include "app/config.h"
#include "kernel/module_loader.h"
#include "stack/router.h"

namespace tarvelo::app {

/// The module's file, `path` empty for the one installed with the command. What it throws names the
/// cure.
[[nodiscard]] std::unique_ptr<module_file> open_module(const std::string& path);

class router_host {
 public:
  explicit router_host(const app_config& config);
  ~router_host();
  router_host(const router_host&) = delete;
  router_host& operator=(const router_host&) = delete;

  [[nodiscard]] stack::router& router() { return *router_; }
  [[nodiscard]] const stack::router& router() const { return *router_; }

  /// Initialises the module and switches its fast path off when the configuration says so.
  void load_module(std::unique_ptr<module_file> file);
  /// Unloads; waits while one of its control files is open.
  void unload_module() { module_.reset(); }

 private:
  const app_config& config_;
  std::unique_ptr<stack::router> router_;
  std::unique_ptr<loaded_module> module_;
};

}  // namespace tarvelo::app
