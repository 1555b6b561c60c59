// SPDX-License-Identifier: GPL-2.0-only
//
// A directory to mount on: made if it is missing, together with the directories above it, and taken
// away again with them at the end. One that was there before stays.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarvelo::app {

class mount_point {
 public:
  /// Throws input_error when something is mounted there, when it is no directory or not empty.
  explicit mount_point(const std::string& path);
  ~mount_point();
  mount_point(const mount_point&) = delete;
  mount_point& operator=(const mount_point&) = delete;

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
  std::vector<std::filesystem::path> made_;  ///< outermost first
};

}  // namespace tarvelo::app
