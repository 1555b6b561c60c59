// SPDX-License-Identifier: GPL-2.0-only
//
// Runs the command as its users do and looks at what it prints, returns and leaves behind. Each
// test has a directory of its own, which goes away with it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/types.h"
#include "ports/segmentation.h"
#include "tests/support/net_text.h"

namespace tarvelo::test {

struct command_result {
  int status;  ///< -1: ended by a signal
  std::string out;
  std::string err;

  /// The one line on standard error without the program's name; all that is there when it is not
  /// one line of the program's.
  [[nodiscard]] std::string complaint() const;
};

struct timed_frame {
  s64 microseconds;
  bytes data;

  friend bool operator==(const timed_frame&, const timed_frame&) = default;
};

class command_test : public testing::Test {
 protected:
  command_test();
  ~command_test() override;

  /// `arguments` as a shell reads them; "@" stands for the test's directory. `before` is what the
  /// shell reads before the command.
  [[nodiscard]] command_result run(const std::string& arguments,
                                   const std::string& before = "") const;
  /// The command under prlimit's `limit`, "nofile" or "nproc", one higher each time, until it
  /// succeeds: before that it ends in one line and leaves nothing at `trace`.
  void expect_clean_ends_under(const std::string& limit, const std::string& arguments,
                               std::string_view trace) const;
  [[nodiscard]] std::string path(std::string_view name) const;
  void put(std::string_view name, const std::string& text) const;
  [[nodiscard]] std::string get(std::string_view name) const;
  void put_capture(std::string_view name, const std::vector<timed_frame>& frames,
                   ports::link_layer link = ports::link_layer::ethernet) const;
  [[nodiscard]] std::vector<timed_frame> get_capture(std::string_view name) const;
  /// Names below a directory, sorted.
  [[nodiscard]] std::vector<std::string> list(std::string_view name) const;

 private:
  [[nodiscard]] std::string expand(std::string text) const;

  std::filesystem::path directory_;
};

}  // namespace tarvelo::test
