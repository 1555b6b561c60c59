// SPDX-License-Identifier: GPL-2.0-only
#include "app/output_directory.h"

#include <fmt/format.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "app/input_error.h"

namespace tarvelo::app {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void cannot_write(const fs::path& path, const std::string& why) {
  throw input_error(
      fmt::format("{}: cannot be written: {}; choose a directory that can be", path.string(), why));
}

/// The directories that have to be made for `path` to be there, outermost first.
std::vector<fs::path> missing_directories(fs::path path) {
  std::vector<fs::path> missing;
  std::error_code error;
  for (; !path.empty() && !fs::exists(path, error); path = path.parent_path()) {
    missing.insert(missing.begin(), path);
  }
  return missing;
}

}  // namespace

output_directory::output_directory(const std::string& path)
    : final_(fs::absolute(path).lexically_normal()) {
  if (!final_.has_filename()) final_ = final_.parent_path();
  std::error_code error;
  if (fs::exists(final_, error) && !fs::is_directory(final_, error)) {
    cannot_write(final_, "not a directory");
  }
  const auto undo = [this] {
    std::error_code ignored;
    for (auto made = made_.rbegin(); made != made_.rend(); ++made)
      fs::remove(*made, ignored);
  };
  for (const fs::path& directory : missing_directories(final_)) {
    if (!fs::create_directory(directory, error)) {
      undo();
      cannot_write(directory, error.message());
    }
    made_.push_back(directory);
  }
  std::string pattern = (final_ / ".tarvelo-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    const std::string why = std::strerror(errno);
    undo();
    cannot_write(final_, why);
  }
  staging_ = pattern;
}

output_directory::~output_directory() {
  std::error_code ignored;
  fs::remove_all(staging_, ignored);
  for (auto made = made_.rbegin(); made != made_.rend(); ++made)
    fs::remove(*made, ignored);
}

std::string output_directory::staged(const std::string& name) {
  const fs::path target = final_ / name;
  std::error_code error;
  if (fs::is_directory(target, error)) cannot_write(target, "a directory is in its place");
  const fs::path directory = target.parent_path();
  // A link in the place of a directory of results would lead them out of the one that was named.
  const fs::file_status above = fs::symlink_status(directory, error);
  if (directory != final_ && fs::exists(above) && !fs::is_directory(above)) {
    cannot_write(directory, "not a directory");
  }
  const fs::path file = staging_ / name;
  fs::create_directories(file.parent_path(), error);
  if (error) cannot_write(target, error.message());
  names_.push_back(name);
  return file.string();
}

void output_directory::write(const std::string& name, const std::string& text) {
  std::ofstream file(staged(name), std::ios::binary);
  file << text;
  file.close();
  if (!file) cannot_write(final_ / name, std::strerror(errno));
}

void output_directory::commit() {
  for (const std::string& name : names_) {
    const fs::path target = final_ / name;
    std::error_code error;
    fs::create_directories(target.parent_path(), error);
    if (!error) fs::rename(staging_ / name, target, error);
    if (error) cannot_write(target, error.message());
  }
  made_.clear();
}

}  // namespace tarvelo::app
