// SPDX-License-Identifier: GPL-2.0-only
//
// Threads of the command.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace tarvelo::app {

/// Calls `start`, which starts a thread; says what to do where there may be no more of them.
template <typename Start>
auto starting_thread(Start&& start) try {
  return std::forward<Start>(start)();
} catch (const std::system_error& error) {
  throw std::runtime_error(
      fmt::format("cannot start a thread: {}; let its user have more of them (ulimit -u)",
                  error.code().message()));
}

template <typename Work>
std::thread start_thread(Work&& work) {
  return starting_thread([&] { return std::thread(std::forward<Work>(work)); });
}

}  // namespace tarvelo::app
