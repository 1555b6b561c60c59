// SPDX-License-Identifier: GPL-2.0-only
//
// Bad input: a configuration, capture or option that the command cannot work with. what() is the
// one line that the user gets, without the program's name: the place, what is wrong and the cure.
// The command ends with exit_status::bad_input, everything taken down.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tarvelo::app {

namespace exit_status {
inline constexpr int good = 0;
inline constexpr int failure = 1;  ///< the system did not do what it should: a full disk
inline constexpr int bad_input = 2;
}  // namespace exit_status

class input_error : public std::runtime_error {
 public:
  explicit input_error(const std::string& line);
};

/// A place in a text file, counted from 1; line 0 stands for the file as a whole.
struct text_place {
  std::uint32_t line = 0;
  std::uint32_t column = 0;
};

/// "FILE:LINE:COLUMN: " or "FILE: ".
[[nodiscard]] std::string describe(const std::string& file, text_place at);

}  // namespace tarvelo::app
