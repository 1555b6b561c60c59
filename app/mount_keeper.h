// SPDX-License-Identifier: GPL-2.0-only
//
// A process of its own that mounts the control files and takes the mount away again. Unmounting
// needs a privilege that the router shall not have while it runs, and the keeper has nothing to do
// with packets. It waits for the router's end, however that comes: a router that is killed leaves
// no dead mount behind either.
//
// Start it before there is a second thread: the process is a fork that goes on using the library.
#pragma once

#include <sys/types.h>

#include <string>

#include "ports/owned_fd.h"

namespace tarvelo::app {

class mount_keeper {
 public:
  /// Mounts on `path`, making directories that are missing. Throws input_error when the mount point
  /// cannot be used.
  explicit mount_keeper(const std::string& path);
  /// Unmounts and takes away the directories that it has made; returns when that is done.
  ~mount_keeper();
  mount_keeper(const mount_keeper&) = delete;
  mount_keeper& operator=(const mount_keeper&) = delete;

  /// The connection to the mounted file system, for the caller to close; none when the host has no
  /// file systems in user space: then reason() says why, in one line.
  [[nodiscard]] ports::owned_fd take_connection() noexcept { return std::move(connection_); }
  [[nodiscard]] const std::string& reason() const noexcept { return reason_; }

 private:
  void receive_outcome();
  void wait() noexcept;

  pid_t process_ = -1;
  ports::owned_fd line_;  ///< to the keeper, which reads its end as the router's
  ports::owned_fd connection_;
  std::string reason_;
};

}  // namespace tarvelo::app
