// SPDX-License-Identifier: GPL-2.0-only
//
// The tree of control files. Directories and files are made and removed by kernel code in process
// context; removing a file waits for the operations that run in it, and later ones fail.
#pragma once

#include "kernel/fs.h"
#include "kernel/types.h"

struct proc_dir_entry;

extern "C" {
/// A directory below `parent`, or at the top when that is null. Null when the name is taken or
/// without memory.
[[nodiscard]] proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent) noexcept;
[[nodiscard]] proc_dir_entry* proc_create_data(const char* name, u16 mode, proc_dir_entry* parent,
                                               const file_operations* fops, void* data) noexcept;
/// Removes the entry `name` of `parent` (top when null), with what is still below it. Open files
/// stay open and answer -ENOENT. Nothing happens when there is none.
void remove_proc_entry(const char* name, proc_dir_entry* parent) noexcept;
/// The private data of the file's entry.
[[nodiscard]] void* PDE_DATA(const inode* node) noexcept;
}
