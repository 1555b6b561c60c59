// SPDX-License-Identifier: GPL-2.0-only
#include "app/control_files.h"

#include <fmt/format.h>

#include <cstring>

#include "app/input_error.h"
#include "kernel/proc_tree.h"

namespace tarvelo::app {

namespace {

constexpr u16 anyone_reads = 0444;

std::string path_of(const std::string& name) {
  return fmt::format("{}/{}", control_directory, name);
}

}  // namespace

void write_control_file(const std::string& name, const std::string& text) {
  proc::entry_info info;
  if (!proc::stat(path_of(name), &info) || info.directory) {
    std::string known;
    for (const proc::entry_info& entry : proc::list(control_directory))
      known += " " + entry.name;
    throw input_error(fmt::format("no control file \"{}\"; write to one of{}", name, known));
  }
  const ssize_type result = proc::write_all(path_of(name), text);
  if (result >= 0) return;
  throw input_error(fmt::format("control file \"{}\" refuses {} bytes: {}; write something else",
                                name, text.size(), std::strerror(static_cast<int>(-result))));
}

std::vector<control_file> read_control_files() {
  std::vector<control_file> files;
  for (const proc::entry_info& entry : proc::list(control_directory)) {
    if (entry.directory || (entry.mode & anyone_reads) == 0) continue;
    control_file file{entry.name, {}};
    int error = 0;
    if (!proc::read_all(path_of(entry.name), &file.text, &error)) {
      throw std::runtime_error(
          fmt::format("control file \"{}\" cannot be read: {}", entry.name, std::strerror(-error)));
    }
    files.push_back(std::move(file));
  }
  return files;
}

}  // namespace tarvelo::app
