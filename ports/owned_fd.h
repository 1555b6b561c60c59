// SPDX-License-Identifier: GPL-2.0-only
//
// A file descriptor that is closed with its owner; -1 stands for none.
#pragma once

#include <unistd.h>

#include <utility>

namespace tarvelo::ports {

class owned_fd {
 public:
  owned_fd() = default;
  explicit owned_fd(int fd) noexcept : fd_(fd) {}
  ~owned_fd() { reset(); }
  owned_fd(owned_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  owned_fd& operator=(owned_fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  owned_fd(const owned_fd&) = delete;
  owned_fd& operator=(const owned_fd&) = delete;

  explicit operator bool() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int get() const noexcept { return fd_; }
  /// The caller's from now on.
  [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
  void reset() noexcept {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

}  // namespace tarvelo::ports
