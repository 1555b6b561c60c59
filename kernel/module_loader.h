// SPDX-License-Identifier: GPL-2.0-only
//
// Loading the module. The module never sees this header. A module is a shared object that defines
// init_module(), cleanup_module(), a `struct module` named __this_module, and its licence and
// dependencies in a section .modinfo. Everything else that it needs, it takes from the functions
// that the kernel headers declare.
#pragma once

#include <memory>
#include <string>

#include "kernel/fs.h"

extern "C" {
using module_init_fn = int (*)();
using module_exit_fn = void (*)();
}

/// Told about the module, in process context: after it has been initialised, and before it is
/// cleaned up, while its handle is still published. By the time `going` returns the stack has taken
/// back every extension record and makes no more.
struct module_notifier {
  void (*live)(void* context);
  void (*going)(void* context);
  void* context;
};
/// One notifier at a time; null removes it.
void set_module_notifier(const module_notifier* notifier) noexcept;

/// The file of a module, mapped into this program; nothing of it has run yet. For a program that
/// may read the file now and not later.
class module_file {
 public:
  /// Null on failure, with the reason in `*error` (one line).
  static std::unique_ptr<module_file> open(const std::string& path, std::string* error);
  ~module_file();
  module_file(const module_file&) = delete;
  module_file& operator=(const module_file&) = delete;

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  friend class loaded_module;
  struct symbols;
  module_file();
  std::string path_;
  void* handle_ = nullptr;  ///< of dlopen()
  std::unique_ptr<symbols> symbols_;
};

/// A loaded module; process context.
class loaded_module {
 public:
  /// Initialises. Null on failure, with the reason in `*error` (one line).
  static std::unique_ptr<loaded_module> load(std::unique_ptr<module_file> file, std::string* error);
  /// Opens the file and initialises.
  static std::unique_ptr<loaded_module> load(const std::string& path, std::string* error);
  /// For a module that is linked in, as in the unit tests.
  static std::unique_ptr<loaded_module> load_linked(module_init_fn init, module_exit_fn exit,
                                                    module* self, std::string* error);

  /// False, changing nothing, while a file of the module is open.
  [[nodiscard]] bool unload();
  /// Unloads, waiting for files to be closed; ends the program if that takes more than 10 s.
  ~loaded_module();
  loaded_module(const loaded_module&) = delete;
  loaded_module& operator=(const loaded_module&) = delete;

 private:
  struct state;
  explicit loaded_module(std::unique_ptr<state> s);
  std::unique_ptr<state> state_;
};
