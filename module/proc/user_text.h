// SPDX-License-Identifier: GPL-2.0-only
//
// What a user writes into a control file, as a NUL-terminated text. Every write is taken on its own
// from its first byte; the file position plays no part.
#pragma once

#include "kernel/fs.h"
#include "kernel/types.h"

namespace tarvelo {

/// A copy of one write; process context. Refused and logged in the name of `parser` and its source
/// line: a write that is too long, one that finds no memory, one that cannot be read.
class user_text {
 public:
  user_text(const char* buffer, std::size_t count, const char* parser, int line);
  ~user_text();
  user_text(const user_text&) = delete;
  user_text& operator=(const user_text&) = delete;

  /// 0, or the negative error that the write is to be answered with.
  [[nodiscard]] int error() const { return error_; }
  /// Null when there was an error.
  [[nodiscard]] const char* text() const { return text_; }

 private:
  char* text_ = nullptr;
  int error_ = 0;
};

}  // namespace tarvelo
