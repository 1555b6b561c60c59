// SPDX-License-Identifier: GPL-2.0-only
//
// The way in to the tree of control files for whoever shows it to users: the mount, the replay's
// output, tests. Process context. The module never sees this.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/fs.h"
#include "kernel/types.h"

namespace proc {

struct entry_info {
  std::string name;
  u16 mode = 0;
  bool directory = false;
};

/// The entries of a directory in the order of their making; `path` is relative, "" the top, "vok"
/// the module's. Empty when there is no such directory.
[[nodiscard]] std::vector<entry_info> list(std::string_view path);
/// False when there is no such entry.
[[nodiscard]] bool stat(std::string_view path, entry_info* info);

/// An open file: every call is one system call's worth, results are byte counts or negative errors.
class open_file {
 public:
  /// Null and the negative error in `*error` when it cannot be opened. An open file pins the module
  /// that its operations name as owner.
  static std::unique_ptr<open_file> open(std::string_view path, int* error);
  ~open_file();
  open_file(const open_file&) = delete;
  open_file& operator=(const open_file&) = delete;

  [[nodiscard]] ssize_type read(char* buffer, std::size_t count);
  [[nodiscard]] ssize_type read_at(char* buffer, std::size_t count, loff_type position);
  [[nodiscard]] ssize_type write(const char* buffer, std::size_t count);
  [[nodiscard]] loff_type seek(loff_type offset, int whence);

 private:
  struct state;
  explicit open_file(std::unique_ptr<state> s);
  std::unique_ptr<state> state_;
};

/// The whole text of a file, read in pieces of a page. False and the negative error on failure.
[[nodiscard]] bool read_all(std::string_view path, std::string* text, int* error);
/// One write of the whole text. The byte count or a negative error.
[[nodiscard]] ssize_type write_all(std::string_view path, std::string_view text);

}  // namespace proc
