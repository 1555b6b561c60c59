// SPDX-License-Identifier: GPL-2.0-only
//
// Files whose text is made while it is read. A sequence is walked by position: start() finds the
// element at `*pos` and may take a lock, next() steps, show() prints one element, stop() lets go.
// An element whose text does not fit what is left of the buffer is shown again at the next read, or
// in a larger buffer when it is the first; show() can tell by seq_has_overflowed().
#pragma once

#include "kernel/fs.h"
#include "kernel/types.h"

struct seq_file;

struct seq_operations {
  void* (*start)(seq_file* m, loff_type* pos);
  void (*stop)(seq_file* m, void* v);
  void* (*next)(seq_file* m, void* v, loff_type* pos);
  int (*show)(seq_file* m, void* v);
};

struct seq_file {
  char* buf;
  std::size_t size;   ///< of `buf`
  std::size_t from;   ///< first byte not yet given to the reader
  std::size_t count;  ///< bytes in `buf`; equal to `size` once it has overflowed
  loff_type index;    ///< position of the next element
  loff_type read_pos;
  const seq_operations* op;
  void* private_data;
};

/// What start() returns at position 0 to have a header shown before the first element.
inline void* const SEQ_START_TOKEN = reinterpret_cast<void*>(1);

extern "C" {
/// Makes `f` a seq file (its `private_data` is the seq_file). 0 or -ENOMEM.
[[nodiscard]] int seq_open(file* f, const seq_operations* op) noexcept;
ssize_type seq_read(file* f, char* buffer, std::size_t count, loff_type* pos) noexcept;
loff_type seq_lseek(file* f, loff_type offset, int whence) noexcept;
int seq_release(inode* node, file* f) noexcept;
/// The same, and frees the seq file's private data with kfree().
int seq_release_private(inode* node, file* f) noexcept;
/// A seq file of one element, printed by `show`; `data` becomes its private data.
[[nodiscard]] int single_open(file* f, int (*show)(seq_file* m, void* v), void* data) noexcept;
int single_release(inode* node, file* f) noexcept;
/// Appends text; the formats of printk(). The buffer is marked as overflowed when it does not fit.
void seq_printf(seq_file* m, const char* format, ...) noexcept;
}

[[nodiscard]] inline bool seq_has_overflowed(const seq_file* m) noexcept {
  return m->count == m->size;
}
