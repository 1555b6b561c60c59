// SPDX-License-Identifier: GPL-2.0-only
#include "app/input_error.h"

#include <fmt/format.h>

namespace tarvelo::app {

namespace {

std::string printable(const std::string& text) {
  constexpr unsigned char first_printable = 0x20;
  constexpr unsigned char del = 0x7F;
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < first_printable || byte == del) {
      result += fmt::format("\\x{:02X}", byte);
    } else {
      result += c;
    }
  }
  return result;
}

}  // namespace

input_error::input_error(const std::string& line) : std::runtime_error(printable(line)) {}

std::string describe(const std::string& file, text_place at) {
  if (at.line == 0) return fmt::format("{}: ", file);
  return fmt::format("{}:{}:{}: ", file, at.line, at.column);
}

}  // namespace tarvelo::app
