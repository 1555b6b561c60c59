// SPDX-License-Identifier: GPL-2.0-only
//
// The base of tests that use the kernel layer: a virtual clock that starts where the test wants it,
// the kernel log caught line by line, and a check that everything taken during the test has been
// given back. The check runs in the destructor, after the members of the derived fixture are gone,
// so hold what a test makes in members or locals that give back what they took.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "kernel/context.h"
#include "kernel/fault.h"
#include "kernel/jiffies.h"
#include "kernel/printk.h"

namespace tarvelo::test {

struct log_line {
  klog::level at;
  std::string text;

  friend bool operator==(const log_line&, const log_line&) = default;
};

/// Receives the kernel log while it exists. Threads may print at the same time.
class log_capture {
 public:
  log_capture();
  ~log_capture();
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  /// Messages so far, each exactly as printed, with a newline only where one was printed; the
  /// capture starts anew.
  [[nodiscard]] std::vector<log_line> take();
  /// The same without the levels.
  [[nodiscard]] std::vector<std::string> take_text();

 private:
  static void receive(void* self, klog::level at, const char* text) noexcept;

  std::mutex mutex_;
  std::vector<log_line> lines_;
};

class kernel_test : public testing::Test {
 public:
  /// Close to the wrap of the 32-bit counter on purpose: times are to be compared by difference.
  /// JIFFIES_START in the environment is another place to start at.
  [[nodiscard]] static u32 default_start();

 protected:
  explicit kernel_test(u32 start = default_start());
  ~kernel_test() override;

  /// Moves the clock on and runs the timers that fall due.
  static void pass(u32 milliseconds) { kernel_clock::advance_to(jiffies + milliseconds); }

  log_capture log;

 private:
  fault::outstanding before_;
};

/// Runs `work` as a packet worker or a timer would: in softirq context.
template <typename Work>
decltype(auto) in_softirq(Work&& work, code_place at = code_place::here()) {
  const hosted::softirq_scope scope(at);
  return work();
}

}  // namespace tarvelo::test

namespace fault {
/// For GoogleTest's messages.
void PrintTo(const outstanding& out, std::ostream* to);
}  // namespace fault
