// SPDX-License-Identifier: GPL-2.0-only
#include "app/input_error.h"

#include <fmt/format.h>

namespace tarvelo::app {

std::string describe(const std::string& file, text_place at) {
  if (at.line == 0) return fmt::format("{}: ", file);
  return fmt::format("{}:{}:{}: ", file, at.line, at.column);
}

}  // namespace tarvelo::app
