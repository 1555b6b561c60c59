// SPDX-License-Identifier: GPL-2.0-only
#include "module/proc/registration.h"

#include "kernel/printk.h"

namespace tarvelo {

constinit proc_dir_entry* _vok_proc_dir_entry = nullptr;

proc_dir_entry* _vok_register_proc_filesystem_entry(vok_handle*, const vok_proc_entry* entries,
                                                    int count, const char* name) {
  if (name == nullptr) {
    printk("the vok root dir is null or parent name is null, create failed\n");
    return nullptr;
  }
  proc_dir_entry* dir = proc_mkdir(name, _vok_proc_dir_entry);
  if (dir == nullptr) {
    printk("create proc directory failed, the proc name is %s", name);
    return nullptr;
  }
  for (int i = 0; i < count; ++i) {
    const vok_proc_entry& row = entries[i];
    if (row.fops == nullptr) continue;
    if (proc_create_data(row.name, row.mode, dir, row.fops, nullptr) == nullptr) {
      printk("create proc entry faied, the name is %s", row.name);
    }
  }
  return dir;
}

void _vok_unregister_proc_filesystem_entry(vok_handle*, const vok_proc_entry* entries, int count,
                                           const char* name, proc_dir_entry* dir) {
  if (name == nullptr || dir == nullptr) {
    printk(KERN_ERR "the parent name is null or the parent dir is null, unregister failed\n");
    return;
  }
  for (int i = 0; i < count; ++i)
    remove_proc_entry(entries[i].name, dir);
  remove_proc_entry(name, dir == _vok_proc_dir_entry ? nullptr : _vok_proc_dir_entry);
}

}  // namespace tarvelo
