// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/proc_fs.h"

#include <algorithm>
#include <new>

#include "kernel/account.h"
#include "kernel/checked.h"
#include "kernel/module_internal.h"
#include "kernel/proc_internal.h"

using hosted::the_proc_tree;
using hosted::account::kind;

namespace {

constexpr u16 directory_mode = 0555;

using children = std::vector<std::shared_ptr<proc_dir_entry>>;

children& children_of(proc_dir_entry* parent) {
  return parent != nullptr ? parent->children : the_proc_tree().top.children;
}

children::iterator find_child(children& among, std::string_view name) {
  return std::find_if(among.begin(), among.end(),
                      [name](const auto& child) { return child->name == name; });
}

proc_dir_entry* make_entry(const char* name, u16 mode, proc_dir_entry* parent,
                           const file_operations* fops, void* data) noexcept {
  if constexpr (kernel_checked) checked_might_sleep(code_place::here());
  if (!hosted::account::may_allocate()) return nullptr;
  try {
    auto entry = std::make_shared<proc_dir_entry>();
    entry->name = name;
    entry->mode = mode;
    entry->fops = fops;
    entry->data = data;
    const std::scoped_lock guard(the_proc_tree().lock);
    children& siblings = children_of(parent);
    if (find_child(siblings, name) != siblings.end()) return nullptr;
    siblings.push_back(entry);
    hosted::account::made(kind::proc_entry);
    return entry.get();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

/// Shuts one removed entry and what is below it: running operations are waited for, open files
/// released.
void shut(proc_dir_entry* entry) {
  std::list<std::shared_ptr<open_proc_file>> open;
  children below;
  {
    std::unique_lock guard(the_proc_tree().lock);
    entry->removed = true;
    the_proc_tree().idle.wait(guard, [entry] { return entry->running == 0; });
    open.swap(entry->open);
    below.swap(entry->children);
  }
  for (const auto& opened : open)
    hosted::release_file(opened.get());
  for (const auto& child : below)
    shut(child.get());
  hosted::account::gone(kind::proc_entry);
}

}  // namespace

namespace hosted {

proc_tree& the_proc_tree() {
  static auto* const tree = new proc_tree;  // never destroyed: files may be open to the last
  return *tree;
}

std::shared_ptr<proc_dir_entry> find_entry(std::string_view path) {
  // The top has no owner of its own: it is never freed.
  std::shared_ptr<proc_dir_entry> at(std::shared_ptr<void>(), &the_proc_tree().top);
  for (bool more = !path.empty(); more;) {
    const std::size_t slash = path.find('/');
    const auto child = find_child(at->children, path.substr(0, slash));
    if (child == at->children.end()) return nullptr;
    at = *child;
    more = slash != std::string_view::npos;
    if (more) path.remove_prefix(slash + 1);
  }
  return at;
}

running_operation::running_operation(proc_dir_entry* entry) : entry_(entry) {
  const std::scoped_lock guard(the_proc_tree().lock);
  if (entry->removed) {
    entry_ = nullptr;
  } else {
    ++entry->running;
  }
}

running_operation::~running_operation() {
  if (entry_ == nullptr) return;
  const std::scoped_lock guard(the_proc_tree().lock);
  if (--entry_->running == 0) the_proc_tree().idle.notify_all();
}

void release_file(open_proc_file* opened) {
  const file_operations* fops = opened->f.f_op;
  if (fops->release != nullptr) fops->release(&opened->node, &opened->f);
  module_put(fops->owner);
}

}  // namespace hosted

extern "C" {

proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent) noexcept {
  return make_entry(name, directory_mode, parent, nullptr, nullptr);
}

proc_dir_entry* proc_create_data(const char* name, u16 mode, proc_dir_entry* parent,
                                 const file_operations* fops, void* data) noexcept {
  return fops != nullptr ? make_entry(name, mode, parent, fops, data) : nullptr;
}

void remove_proc_entry(const char* name, proc_dir_entry* parent) noexcept {
  if constexpr (kernel_checked) checked_might_sleep(code_place::here());
  std::shared_ptr<proc_dir_entry> entry;
  {
    const std::scoped_lock guard(the_proc_tree().lock);
    children& siblings = children_of(parent);
    const auto found = find_child(siblings, name);
    if (found == siblings.end()) return;
    entry = *found;
    siblings.erase(found);
  }
  shut(entry.get());
}

void* PDE_DATA(const inode* node) noexcept {
  return node->i_private;
}

}  // extern "C"
