// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/module_loader.h"

#include <dlfcn.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "kernel/checked.h"
#include "kernel/modinfo.h"
#include "kernel/module_internal.h"
#include "kernel/printk.h"
#include "kernel/rcupdate.h"

namespace {

/// `module::users` of a module that is going: no new user gets in.
constexpr s32 going_away = -1;
constexpr std::chrono::seconds longest_unload{10};
constexpr std::chrono::milliseconds unload_poll{10};

std::mutex notifier_lock;
std::optional<module_notifier> notifier;

std::optional<module_notifier> current_notifier() {
  const std::scoped_lock guard(notifier_lock);
  return notifier;
}

/// What the shared object of a module defines.
struct module_symbols {
  module_init_fn init;
  module_exit_fn exit;
  module* self;
};

bool licence_is_good(const std::string& path, std::string* error) {
  const auto information = hosted::read_modinfo(path, error);
  if (!information) return false;
  const auto licence = hosted::modinfo_value(*information, "license");
  if (licence != "GPL") {
    *error = path + ": the module's licence is \"" + std::string(licence.value_or("")) +
             "\", not \"GPL\"";
    return false;
  }
  const auto depends = hosted::modinfo_value(*information, "depends");
  if (depends && !depends->empty()) {
    *error = path + ": depends on \"" + std::string(*depends) + "\", which is not loaded";
    return false;
  }
  return true;
}

template <typename Symbol>
bool find_symbol(void* handle, const std::string& path, const char* name, Symbol* symbol,
                 std::string* error) {
  *symbol = reinterpret_cast<Symbol>(dlsym(handle, name));
  if (*symbol != nullptr) return true;
  *error = path + ": the module does not define " + name;
  return false;
}

bool find_symbols(void* handle, const std::string& path, module_symbols* symbols,
                  std::string* error) {
  return find_symbol(handle, path, "init_module", &symbols->init, error) &&
         find_symbol(handle, path, "cleanup_module", &symbols->exit, error) &&
         find_symbol(handle, path, "__this_module", &symbols->self, error);
}

/// Runs the module's init; false with the reason when it fails.
bool initialise(const module_symbols& symbols, const std::string& name, std::string* error) {
  atomic_set(&symbols.self->users, 0);
  const int result = symbols.init();
  if (result != 0) {
    // What it had deferred is code and memory of its own.
    rcu_barrier();
    *error = name + ": init_module failed with " + std::to_string(result);
    return false;
  }
  if (const auto told = current_notifier(); told && told->live != nullptr) {
    told->live(told->context);
  }
  return true;
}

}  // namespace

namespace hosted {

bool try_module_get(module* owner) noexcept {
  if (owner == nullptr) return true;
  s32 seen = atomic_read(&owner->users);
  while (seen >= 0) {
    if (__atomic_compare_exchange_n(&owner->users.counter, &seen, seen + 1, false, __ATOMIC_SEQ_CST,
                                    __ATOMIC_RELAXED)) {
      return true;
    }
  }
  return false;
}

void module_put(module* owner) noexcept {
  if (owner != nullptr) atomic_dec(&owner->users);
}

}  // namespace hosted

struct module_file::symbols : module_symbols {};

module_file::module_file() : symbols_(std::make_unique<symbols>()) {}

module_file::~module_file() {
  if (handle_ != nullptr) dlclose(handle_);
}

std::unique_ptr<module_file> module_file::open(const std::string& path, std::string* error) {
  if (!licence_is_good(path, error)) return nullptr;
  std::unique_ptr<module_file> file(new module_file);
  file->path_ = path;
  // An absolute path, so that it is not searched for among the system's libraries.
  file->handle_ = dlopen(std::filesystem::absolute(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (file->handle_ == nullptr) {
    *error = dlerror();
    return nullptr;
  }
  if (!find_symbols(file->handle_, path, file->symbols_.get(), error)) return nullptr;
  return file;
}

struct loaded_module::state {
  std::unique_ptr<module_file> file;  ///< null for a module that is linked in
  module_symbols symbols{};
  bool loaded = true;
};

void set_module_notifier(const module_notifier* to) noexcept {
  const std::scoped_lock guard(notifier_lock);
  notifier = to != nullptr ? std::optional(*to) : std::nullopt;
}

loaded_module::loaded_module(std::unique_ptr<state> s) : state_(std::move(s)) {}

std::unique_ptr<loaded_module> loaded_module::load(std::unique_ptr<module_file> file,
                                                   std::string* error) {
  if constexpr (kernel_checked) checked_might_sleep(code_place::here());
  auto s = std::make_unique<state>();
  s->symbols = *file->symbols_;
  s->file = std::move(file);
  if (!initialise(s->symbols, s->file->path_, error)) return nullptr;
  return std::unique_ptr<loaded_module>(new loaded_module(std::move(s)));
}

std::unique_ptr<loaded_module> loaded_module::load(const std::string& path, std::string* error) {
  auto file = module_file::open(path, error);
  return file ? load(std::move(file), error) : nullptr;
}

std::unique_ptr<loaded_module> loaded_module::load_linked(module_init_fn init, module_exit_fn exit,
                                                          module* self, std::string* error) {
  auto s = std::make_unique<state>();
  s->symbols = {init, exit, self};
  if (!initialise(s->symbols, self->name, error)) return nullptr;
  return std::unique_ptr<loaded_module>(new loaded_module(std::move(s)));
}

bool loaded_module::unload() {
  if (!state_->loaded) return true;
  module* const self = state_->symbols.self;
  s32 unused = 0;
  if (!__atomic_compare_exchange_n(&self->users.counter, &unused, going_away, false,
                                   __ATOMIC_SEQ_CST, __ATOMIC_RELAXED)) {
    return false;
  }
  if (const auto told = current_notifier(); told && told->going != nullptr) {
    told->going(told->context);
  }
  state_->symbols.exit();
  rcu_barrier();
  atomic_set(&self->users, 0);
  state_->file.reset();
  state_->loaded = false;
  return true;
}

loaded_module::~loaded_module() {
  const auto give_up = std::chrono::steady_clock::now() + longest_unload;
  while (!unload()) {
    if (std::chrono::steady_clock::now() > give_up) {
      checked_fault("a file of the module stays open while it is unloaded", code_place::here(), {});
    }
    std::this_thread::sleep_for(unload_poll);
  }
}
