// SPDX-License-Identifier: GPL-2.0-only
//
// The command's arguments, and the command as a function of them.
#pragma once

#include <string>
#include <vector>

namespace tarvelo::app {

struct run_options {
  std::string config;
  std::string module;  ///< empty: the module that was installed with the command
};

/// What the repeated options of a replay take.
inline constexpr const char* input_form = "DEVICE=CAPTURE";
inline constexpr const char* setting_form = "NAME=TEXT";

struct replay_options {
  std::string config;
  std::string module;
  std::vector<std::string> inputs;    ///< `input_form`
  std::vector<std::string> settings;  ///< `setting_form`
  std::string out;
};

/// Does what the arguments say, reports every error as one line on standard error, and returns the
/// exit status.
int run_command(int argc, const char* const* argv);

/// "KEY=VALUE" taken apart at the first '='.
struct assignment {
  std::string key;
  std::string value;
};
/// Throws input_error naming `option` and the `form` of its value when there is no '=' or no key.
[[nodiscard]] assignment parse_assignment(const std::string& option, const std::string& form,
                                          const std::string& text);

}  // namespace tarvelo::app
