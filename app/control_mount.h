// SPDX-License-Identifier: GPL-2.0-only
//
// The control files where everybody can reach them: a file system in user space that shows the
// kernel's tree of control files, served by a thread of its own in process context. What a file's
// operations answer is what its user gets, errors included.
//
// Without file systems in user space on the host the router works all the same: then nothing is
// mounted, and available() is false.
#pragma once

#include <memory>
#include <string>

namespace tarvelo::app {

class control_mount {
 public:
  /// Mounts at once, while the process still has one thread and the privileges for it; whoever uses
  /// the files waits until they are served. Throws input_error when the mount point cannot be used.
  explicit control_mount(const std::string& path);
  /// Unmounts, closing files that users still have open.
  ~control_mount();
  control_mount(const control_mount&) = delete;
  control_mount& operator=(const control_mount&) = delete;

  /// Starts the thread that serves the files. `processor` is no other thread's. Once.
  void serve(unsigned processor);

  [[nodiscard]] bool available() const noexcept;
  /// Why it is not available, in one line.
  [[nodiscard]] const std::string& reason() const noexcept;

 private:
  struct state;
  std::unique_ptr<state> state_;
};

}  // namespace tarvelo::app
