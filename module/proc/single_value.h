// SPDX-License-Identifier: GPL-2.0-only
//
// Control files of one value: a show operation prints it, a parser takes it, and everything around
// the two is the same for all of them. Such a file does not pin the module.
#pragma once

#include "kernel/proc_fs.h"
#include "kernel/seq_file.h"

namespace tarvelo {

/// Prints the value; returns 0. `data` of the file is not used.
using show_fn = int (*)(seq_file* m, void* v);
/// Takes the value from one write; a byte count or a negative error.
using parser_fn = ssize_type (*)(file* f, const char* buffer, std::size_t count, void* data);

template <show_fn Show>
int single_value_open(inode* node, file* f) {
  return single_open(f, Show, PDE_DATA(node));
}

template <parser_fn Parser>
ssize_type single_value_write(file* f, const char* buffer, std::size_t count, loff_type*) {
  return Parser(f, buffer, count, PDE_DATA(f->f_inode));
}

using open_fn = int (*)(inode* node, file* f);
using write_fn = ssize_type (*)(file* f, const char* buffer, std::size_t count, loff_type* pos);

[[nodiscard]] constexpr file_operations single_value_file(open_fn open, write_fn write) {
  return {.owner = nullptr,
          .llseek = seq_lseek,
          .read = seq_read,
          .write = write,
          .open = open,
          .release = single_release};
}

inline constexpr write_fn read_only = nullptr;

}  // namespace tarvelo
