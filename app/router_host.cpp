// SPDX-License-Identifier: GPL-2.0-only
#include "app/router_host.h"

#include <fmt/format.h>

#include <filesystem>

#include "app/control_files.h"
#include "app/thread.h"
#include "kernel/deferred_calls.h"
#include "ports/port.h"

namespace tarvelo::app {

namespace {

/// bin/tarvelo and lib/tarvelo.so lie side by side.
std::string installed_module() {
  std::error_code error;
  const auto command = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return "tarvelo.so";
  return (command.parent_path().parent_path() / "lib" / "tarvelo.so").string();
}

[[noreturn]] void cannot_load(const std::string& name, const std::string& error) {
  throw input_error(
      fmt::format("{}: the module cannot be loaded: {}; name it with --module", name, error));
}

std::unique_ptr<stack::router> build_router(const app_config& config) {
  starting_thread(hosted::start_deferred_calls);
  try {
    return std::make_unique<stack::router>(config.router, &ports::port_device_ops);
  } catch (const stack::setup_error& error) {
    const std::string what = error.what();
    throw input_error(describe(config.file, place_named_in(config, what)) + what);
  }
}

}  // namespace

std::unique_ptr<module_file> open_module(const std::string& path) {
  const std::string name = path.empty() ? installed_module() : path;
  std::string error;
  auto file = module_file::open(name, &error);
  if (file) return file;
  cannot_load(name, error);
}

router_host::router_host(const app_config& config)
    : config_(config), router_(build_router(config)) {}

router_host::~router_host() = default;

void router_host::load_module(std::unique_ptr<module_file> file) {
  const std::string name = file->path();
  std::string error;
  module_ = loaded_module::load(std::move(file), &error);
  if (!module_) cannot_load(name, error);
  if (!config_.control.fast_path) write_control_file("enable", "0");
}

}  // namespace tarvelo::app
