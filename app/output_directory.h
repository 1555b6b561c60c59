// SPDX-License-Identifier: GPL-2.0-only
//
// A directory of results that appear together or not at all. Files are written below a directory of
// temporary names inside it and moved to their own names by commit(); without a commit everything
// that was made is taken away again, the directory included if it was made here.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarvelo::app {

class output_directory {
 public:
  /// Makes the directory if need be. Throws input_error.
  explicit output_directory(const std::string& path);
  ~output_directory();
  output_directory(const output_directory&) = delete;
  output_directory& operator=(const output_directory&) = delete;

  /// Where to write the file that will be called `name`; a name may have one directory before it.
  [[nodiscard]] std::string staged(const std::string& name);
  void write(const std::string& name, const std::string& text);
  void commit();

 private:
  std::filesystem::path final_;
  std::filesystem::path staging_;
  std::vector<std::filesystem::path> made_;  ///< directories, outermost first
  std::vector<std::string> names_;
};

}  // namespace tarvelo::app
