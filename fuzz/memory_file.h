// SPDX-License-Identifier: GPL-2.0-only
//
// An input as a file that others can open by name; gone with the object.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzzed_router.h"

namespace tarvelo::fuzz {

class memory_file {
 public:
  memory_file(const u8* data, std::size_t size) : fd_(memfd_create("input", MFD_CLOEXEC)) {
    if (fd_ < 0 || write(fd_, data, size) != static_cast<ssize_t>(size)) fail("no memory file");
  }
  ~memory_file() { close(fd_); }
  memory_file(const memory_file&) = delete;
  memory_file& operator=(const memory_file&) = delete;

  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

}  // namespace tarvelo::fuzz
