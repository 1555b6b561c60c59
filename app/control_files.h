// SPDX-License-Identifier: GPL-2.0-only
//
// The module's control files by name, as the command itself uses them. Process context.
#pragma once

#include <string>
#include <vector>

namespace tarvelo::app {

/// The directory of the module's files in the tree of control files.
inline constexpr const char* control_directory = "vok";

/// One write of the whole text. Throws input_error when there is no such file or it refuses.
void write_control_file(const std::string& name, const std::string& text);

struct control_file {
  std::string name;
  std::string text;
};
/// All files that can be read, with what they hold, in the order of their making.
[[nodiscard]] std::vector<control_file> read_control_files();

}  // namespace tarvelo::app
