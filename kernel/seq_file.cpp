// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/seq_file.h"

#include <cstdarg>
#include <cstdio>

#include "kernel/errno.h"
#include "kernel/printk.h"
#include "kernel/slab.h"
#include "kernel/uaccess.h"

namespace {

constexpr std::size_t page_size = 4096;

seq_file* seq_of(file* f) noexcept {
  return static_cast<seq_file*>(f->private_data);
}

std::size_t smaller(std::size_t a, std::size_t b) noexcept {
  return a < b ? a : b;
}

/// start() and next() may answer with an error in the place of an element.
int error_of(const void* element) noexcept {
  constexpr std::uintptr_t last_errno = 4095;
  const auto value = reinterpret_cast<std::uintptr_t>(element);
  return value >= ~last_errno ? static_cast<int>(static_cast<std::intptr_t>(value)) : 0;
}

bool is_element(const void* element) noexcept {
  return element != nullptr && error_of(element) == 0;
}

/// Gives the file a fresh empty buffer in the place of its own.
int set_buffer(seq_file* m, std::size_t size) noexcept {
  kfree(m->buf);
  m->count = 0;
  m->size = size;
  m->buf = static_cast<char*>(kmalloc(size, GFP_KERNEL));
  return m->buf != nullptr ? 0 : -ENOMEM;
}

/// Moves what the buffer holds to the reader. Byte count or -EFAULT.
ssize_type give(seq_file* m, char* to, std::size_t room) noexcept {
  const std::size_t n = smaller(m->count, room);
  if (copy_to_user(to, m->buf + m->from, n) != 0) return -EFAULT;
  m->count -= n;
  m->from += n;
  return static_cast<ssize_type>(n);
}

/// Shows elements until one has left text that fits, growing the buffer for one that does not.
/// True with the walk open at `*element` (position `*pos`) and its text in the buffer; false with
/// the walk closed, at the end (`*error` 0) or on an error.
bool show_first(seq_file* m, void** element, loff_type* pos, int* error) noexcept {
  *pos = m->index;
  void* p = m->op->start(m, pos);
  while (is_element(p)) {
    const int shown = m->op->show(m, p);
    if (shown < 0) {
      *error = shown;
      break;
    }
    if (shown > 0) m->count = 0;  // the element asks to be passed over
    if (m->count == 0) {
      p = m->op->next(m, p, pos);
      m->index = *pos;
      continue;
    }
    if (!seq_has_overflowed(m)) {
      *element = p;
      return true;
    }
    m->op->stop(m, p);
    *error = set_buffer(m, m->size * 2);
    if (*error != 0) return false;
    *pos = m->index;
    p = m->op->start(m, pos);
  }
  if (*error == 0) *error = error_of(p);
  m->op->stop(m, p);
  m->count = 0;
  return false;
}

/// Adds further elements while the reader wants more and they fit, and closes the walk. The one
/// that did not fit is the next read's first.
void show_more(seq_file* m, void* element, loff_type* pos, std::size_t wanted) noexcept {
  void* p = element;
  while (m->count < wanted) {
    const std::size_t whole = m->count;
    loff_type next = *pos;
    p = m->op->next(m, p, &next);
    if (!is_element(p)) break;
    const int shown = m->op->show(m, p);
    if (seq_has_overflowed(m) || shown != 0) {
      m->count = whole;
      if (shown <= 0) break;
    }
    *pos = next;
  }
  m->op->stop(m, p);
}

/// Walks on to byte `offset` of the text, throwing away what comes before it. 0, or a negative
/// error.
int traverse_once(seq_file* m, loff_type offset) noexcept {
  loff_type done = 0;
  m->index = 0;
  m->count = m->from = 0;
  if (offset == 0) return 0;
  if (m->buf == nullptr) {
    if (const int error = set_buffer(m, page_size); error != 0) return error;
  }
  loff_type index = 0;
  int error = 0;
  void* p = m->op->start(m, &index);
  while (is_element(p)) {
    error = m->op->show(m, p);
    if (error < 0) break;
    if (error > 0) {
      error = 0;
      m->count = 0;
    }
    if (seq_has_overflowed(m)) {
      m->op->stop(m, p);
      error = set_buffer(m, m->size * 2);
      return error != 0 ? error : -EAGAIN;
    }
    const auto text = static_cast<loff_type>(m->count);
    if (done + text > offset) {
      m->from = static_cast<std::size_t>(offset - done);
      m->count -= m->from;
      m->index = index;
      break;
    }
    done += text;
    m->count = 0;
    p = m->op->next(m, p, &index);
    m->index = index;
    if (done == offset) break;
  }
  if (error == 0) error = error_of(p);
  m->op->stop(m, p);
  return error;
}

int traverse(seq_file* m, loff_type offset) noexcept {
  int error = -EAGAIN;
  while (error == -EAGAIN)
    error = traverse_once(m, offset);
  if (error != 0) {
    m->read_pos = 0;
    m->index = 0;
    m->count = 0;
    return error;
  }
  m->read_pos = offset;
  return 0;
}

/// Gives the reader what is left from the last read, then shows more if there is room.
ssize_type fill(seq_file* m, char* to, std::size_t room) noexcept {
  ssize_type copied = 0;
  if (m->count != 0) {
    copied = give(m, to, room);
    if (copied < 0) return copied;
    if (m->count == 0) ++m->index;
    to += copied;
    room -= static_cast<std::size_t>(copied);
    if (room == 0) return copied;
  }
  m->from = 0;
  void* element = nullptr;
  loff_type pos = 0;
  int error = 0;
  if (!show_first(m, &element, &pos, &error)) return copied != 0 ? copied : error;
  show_more(m, element, &pos, room);
  const ssize_type given = give(m, to, room);
  if (given < 0) return copied != 0 ? copied : given;
  // The last element is whole with the reader, or its rest waits in the buffer.
  m->index = m->count != 0 ? pos : pos + 1;
  return copied + given;
}

/// The walk of a file of one element.
void* single_start(seq_file*, loff_type* pos) {
  return *pos == 0 ? SEQ_START_TOKEN : nullptr;
}
void* single_next(seq_file*, void*, loff_type* pos) {
  ++*pos;
  return nullptr;
}
void single_stop(seq_file*, void*) {}

}  // namespace

extern "C" {

int seq_open(file* f, const seq_operations* op) noexcept {
  auto* m = static_cast<seq_file*>(kzalloc(sizeof(seq_file), GFP_KERNEL));
  if (m == nullptr) return -ENOMEM;
  m->op = op;
  f->private_data = m;
  return 0;
}

ssize_type seq_read(file* f, char* buffer, std::size_t count, loff_type* pos) noexcept {
  seq_file* m = seq_of(f);
  if (*pos != m->read_pos) {
    if (const int error = traverse(m, *pos); error != 0) return error;
  }
  if (m->buf == nullptr) {
    if (const int error = set_buffer(m, page_size); error != 0) return error;
  }
  const ssize_type copied = fill(m, buffer, count);
  if (copied > 0) {
    *pos += copied;
    m->read_pos += copied;
  }
  return copied;
}

loff_type seq_lseek(file* f, loff_type offset, int whence) noexcept {
  seq_file* m = seq_of(f);
  if (whence == SEEK_CUR) {
    offset += f->f_pos;
  } else if (whence != SEEK_SET) {
    return -EINVAL;
  }
  if (offset < 0) return -EINVAL;
  if (offset != m->read_pos) {
    if (const int error = traverse(m, offset); error != 0) {
      f->f_pos = 0;
      return error;
    }
  }
  f->f_pos = offset;
  return offset;
}

int seq_release(inode* /*node*/, file* f) noexcept {
  seq_file* m = seq_of(f);
  kfree(m->buf);
  kfree(m);
  f->private_data = nullptr;
  return 0;
}

int seq_release_private(inode* node, file* f) noexcept {
  kfree(seq_of(f)->private_data);
  return seq_release(node, f);
}

int single_open(file* f, int (*show)(seq_file* m, void* v), void* data) noexcept {
  auto* op = static_cast<seq_operations*>(kmalloc(sizeof(seq_operations), GFP_KERNEL));
  if (op == nullptr) return -ENOMEM;
  *op = {single_start, single_stop, single_next, show};
  if (const int error = seq_open(f, op); error != 0) {
    kfree(op);
    return error;
  }
  seq_of(f)->private_data = data;
  return 0;
}

int single_release(inode* node, file* f) noexcept {
  const seq_operations* op = seq_of(f)->op;
  seq_release(node, f);
  kfree(op);
  return 0;
}

void seq_printf(seq_file* m, const char* format, ...) noexcept {
  if (m->count < m->size) {
    va_list args;
    va_start(args, format);
    const int length = vscnprintf_full(m->buf + m->count, m->size - m->count, format, args);
    va_end(args);
    if (m->count + static_cast<std::size_t>(length) < m->size) {
      m->count += static_cast<std::size_t>(length);
      return;
    }
  }
  m->count = m->size;
}

}  // extern "C"
