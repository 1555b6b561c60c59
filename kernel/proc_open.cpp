// SPDX-License-Identifier: GPL-2.0-only
#include <cstdio>

#include "kernel/checked.h"
#include "kernel/errno.h"
#include "kernel/module_internal.h"
#include "kernel/proc_internal.h"
#include "kernel/proc_tree.h"

using hosted::running_operation;
using hosted::the_proc_tree;

namespace {

constexpr std::size_t page_size = 4096;

/// Calls the file's open operation, its module pinned. 0 or a negative error.
int call_open(open_proc_file* opened) {
  const file_operations* fops = opened->f.f_op;
  if (!hosted::try_module_get(fops->owner)) return -ENODEV;
  const int error = fops->open != nullptr ? fops->open(&opened->node, &opened->f) : 0;
  if (error != 0) hosted::module_put(fops->owner);
  return error;
}

/// What llseek means for a file that does not say.
loff_type default_seek(file* f, loff_type offset, int whence) {
  if (whence == SEEK_CUR) {
    offset += f->f_pos;
  } else if (whence != SEEK_SET) {
    return -EINVAL;
  }
  if (offset < 0) return -EINVAL;
  f->f_pos = offset;
  return offset;
}

}  // namespace

namespace proc {

std::vector<entry_info> list(std::string_view path) {
  const std::scoped_lock guard(the_proc_tree().lock);
  std::vector<entry_info> entries;
  const auto directory = hosted::find_entry(path);
  if (directory == nullptr) return entries;
  for (const auto& child : directory->children) {
    entries.push_back({child->name, child->mode, child->fops == nullptr});
  }
  return entries;
}

bool stat(std::string_view path, entry_info* info) {
  const std::scoped_lock guard(the_proc_tree().lock);
  const auto entry = hosted::find_entry(path);
  if (entry == nullptr) return false;
  *info = {entry->name, entry->mode, entry->fops == nullptr};
  if (path.empty()) info->directory = true;
  return true;
}

struct open_file::state {
  std::shared_ptr<open_proc_file> opened;

  /// Calls `operation` unless the file's entry has been removed.
  template <typename Result, typename Operation>
  Result run(Operation operation) {
    if constexpr (kernel_checked) checked_might_sleep(code_place::here());
    const std::scoped_lock turn(opened->one_call);
    const running_operation running(opened->entry.get());
    if (!running) return -ENOENT;
    return operation(&opened->f, opened->f.f_op);
  }
};

open_file::open_file(std::unique_ptr<state> s) : state_(std::move(s)) {}

std::unique_ptr<open_file> open_file::open(std::string_view path, int* error) {
  std::shared_ptr<proc_dir_entry> entry;
  {
    const std::scoped_lock guard(the_proc_tree().lock);
    entry = hosted::find_entry(path);
  }
  *error = -ENOENT;
  if (entry == nullptr) return nullptr;
  *error = -EISDIR;
  if (entry->fops == nullptr) return nullptr;
  auto opened = std::make_shared<open_proc_file>();
  opened->entry = entry;
  opened->node = {entry->mode, entry->data};
  opened->f.f_op = entry->fops;
  opened->f.f_inode = &opened->node;
  *error = -ENOENT;
  const running_operation running(entry.get());
  if (!running) return nullptr;
  *error = call_open(opened.get());
  if (*error != 0) return nullptr;
  {
    const std::scoped_lock guard(the_proc_tree().lock);
    entry->open.push_back(opened);
  }
  auto s = std::make_unique<state>();
  s->opened = std::move(opened);
  return std::unique_ptr<open_file>(new open_file(std::move(s)));
}

open_file::~open_file() {
  proc_dir_entry* entry = state_->opened->entry.get();
  const running_operation running(entry);
  if (!running) return;  // the removal of the entry releases, or has released, the file
  {
    const std::scoped_lock guard(the_proc_tree().lock);
    entry->open.remove(state_->opened);
  }
  hosted::release_file(state_->opened.get());
}

ssize_type open_file::read(char* buffer, std::size_t count) {
  return state_->run<ssize_type>([&](file* f, const file_operations* fops) -> ssize_type {
    return fops->read != nullptr ? fops->read(f, buffer, count, &f->f_pos) : -EINVAL;
  });
}

ssize_type open_file::read_at(char* buffer, std::size_t count, loff_type position) {
  return state_->run<ssize_type>([&](file* f, const file_operations* fops) -> ssize_type {
    return fops->read != nullptr ? fops->read(f, buffer, count, &position) : -EINVAL;
  });
}

ssize_type open_file::write(const char* buffer, std::size_t count) {
  return state_->run<ssize_type>([&](file* f, const file_operations* fops) -> ssize_type {
    return fops->write != nullptr ? fops->write(f, buffer, count, &f->f_pos) : -EIO;
  });
}

loff_type open_file::seek(loff_type offset, int whence) {
  return state_->run<loff_type>([&](file* f, const file_operations* fops) -> loff_type {
    return fops->llseek != nullptr ? fops->llseek(f, offset, whence)
                                   : default_seek(f, offset, whence);
  });
}

bool read_all(std::string_view path, std::string* text, int* error) {
  const auto opened = open_file::open(path, error);
  if (opened == nullptr) return false;
  text->clear();
  char page[page_size];
  while (true) {
    const ssize_type n = opened->read(page, sizeof page);
    if (n < 0) {
      *error = static_cast<int>(n);
      return false;
    }
    if (n == 0) return true;
    text->append(page, static_cast<std::size_t>(n));
  }
}

ssize_type write_all(std::string_view path, std::string_view text) {
  int error = 0;
  const auto opened = open_file::open(path, &error);
  return opened != nullptr ? opened->write(text.data(), text.size()) : error;
}

}  // namespace proc
