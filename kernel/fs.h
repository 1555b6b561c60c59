// SPDX-License-Identifier: GPL-2.0-only
//
// Open files, and the module that a file's operations belong to.
#pragma once

#include "kernel/atomic.h"
#include "kernel/types.h"

/// A loadable module: what an open file pins.
struct module {
  const char* name;
  atomic_t users;  ///< open files whose operations name this module as their owner
};

/// A byte count or a negative error.
using ssize_type = std::ptrdiff_t;

struct inode {
  u16 i_mode;
  void* i_private;  ///< the proc entry's private data
};

struct file {
  const struct file_operations* f_op;
  inode* f_inode;
  loff_type f_pos;
  void* private_data;
};

/// Null members are refused: read and write with -EINVAL (a proc file without a write operation:
/// -EIO). All run in process context.
struct file_operations {
  module* owner;
  loff_type (*llseek)(file* f, loff_type offset, int whence);
  ssize_type (*read)(file* f, char* buffer, std::size_t count, loff_type* pos);
  ssize_type (*write)(file* f, const char* buffer, std::size_t count, loff_type* pos);
  int (*open)(inode* node, file* f);
  int (*release)(inode* node, file* f);
};
