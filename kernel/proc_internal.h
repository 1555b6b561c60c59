// SPDX-License-Identifier: GPL-2.0-only
//
// The tree of control files from the inside: its entries and the files open on them. One lock
// guards the tree's shape, the counts of running operations and the lists of open files; no
// operation of a file runs under it. Only kernel/*.cpp includes this.
#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/fs.h"

struct proc_dir_entry {
  std::string name;
  u16 mode = 0;
  const file_operations* fops = nullptr;  ///< null: a directory
  void* data = nullptr;
  bool removed = false;
  unsigned running = 0;                                   ///< operations in it right now
  std::vector<std::shared_ptr<proc_dir_entry>> children;  ///< in the order of their making
  std::list<std::shared_ptr<struct open_proc_file>> open;
};

/// One open file. It outlives its entry's removal, which releases it.
struct open_proc_file {
  std::shared_ptr<proc_dir_entry> entry;
  inode node{};
  file f{};
  std::mutex one_call;  ///< operations on one open file take turns
};

namespace hosted {

struct proc_tree {
  std::mutex lock;
  std::condition_variable idle;  ///< an entry's `running` has become 0
  proc_dir_entry top;
};
proc_tree& the_proc_tree();

/// The entry at a relative path, "" the top; null when there is none. Tree's lock.
[[nodiscard]] std::shared_ptr<proc_dir_entry> find_entry(std::string_view path);

/// Keeps an entry from being removed while an operation runs in it. False when it is gone already.
class running_operation {
 public:
  explicit running_operation(proc_dir_entry* entry);
  ~running_operation();
  running_operation(const running_operation&) = delete;
  running_operation& operator=(const running_operation&) = delete;

  [[nodiscard]] explicit operator bool() const noexcept { return entry_ != nullptr; }

 private:
  proc_dir_entry* entry_;
};

/// Calls the file's release operation and lets its module go.
void release_file(open_proc_file* opened);

}  // namespace hosted
