// SPDX-License-Identifier: GPL-2.0-only
#include "app/mount_point.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "app/input_error.h"

namespace tarvelo::app {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void unusable(const std::string& path, const std::string& why,
                           const std::string& cure) {
  throw input_error(fmt::format("mount point {}: {}; {}", path, why, cure));
}

void check_free(const std::string& path) {
  struct stat here {};
  if (stat(path.c_str(), &here) != 0) {
    // What a mount answers whose program has died.
    const bool dead_mount = errno == ENOTCONN;
    unusable(path, dead_mount ? "in use" : std::strerror(errno),
             dead_mount ? "unmount it (fusermount3 -u)" : "name another directory");
  }
  if (!S_ISDIR(here.st_mode)) unusable(path, "not a directory", "name a directory");
  struct stat above {};
  const bool mounted = stat((path + "/..").c_str(), &above) == 0 && above.st_dev != here.st_dev;
  if (mounted) unusable(path, "in use", "unmount it or name another directory");
  std::error_code error;
  const bool empty = fs::is_empty(path, error);
  if (error) unusable(path, error.message(), "name a directory that can be read");
  if (!empty) unusable(path, "not empty", "name an empty directory");
}

}  // namespace

mount_point::mount_point(const std::string& path) : path_(path) {
  struct stat here {};
  if (lstat(path.c_str(), &here) == 0 || errno != ENOENT) {
    check_free(path);
    return;
  }
  fs::path missing = fs::path(path).lexically_normal();
  if (!missing.has_filename()) missing = missing.parent_path();
  std::error_code error;
  for (; !fs::exists(missing, error) && !error; missing = missing.parent_path()) {
    made_.insert(made_.begin(), missing);
  }
  for (std::size_t i = 0; i < made_.size(); ++i) {
    if (fs::create_directory(made_[i], error)) continue;
    const std::string failed = made_[i].string();
    while (i-- > 0)
      fs::remove(made_[i]);
    unusable(path, fmt::format("{} cannot be made: {}", failed, error.message()),
             "name another directory");
  }
}

mount_point::~mount_point() {
  std::error_code ignored;
  for (auto made = made_.rbegin(); made != made_.rend(); ++made)
    fs::remove(*made, ignored);
}

}  // namespace tarvelo::app
