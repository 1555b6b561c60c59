// SPDX-License-Identifier: GPL-2.0-only
#include "tests/app/command_fixture.h"

#include <linux/close_range.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "kernel/sanitizers.h"
#include "ports/capture_file.h"

namespace tarvelo::test {

namespace {

constexpr s64 nanoseconds_per_microsecond = 1000;

/// Sanitizers open files to find out what they want to know, and report faults where they cannot.
#if defined(HOSTED_ASAN) || defined(HOSTED_TSAN)
constexpr bool is_sanitized = true;
#else
constexpr bool is_sanitized = false;
#endif

std::string read_file(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

std::string command_result::complaint() const {
  constexpr std::string_view name = "tarvelo: ";
  const bool is_one_line = err.starts_with(name) && err.find('\n') == err.size() - 1;
  return is_one_line ? err.substr(name.size(), err.size() - name.size() - 1) : err;
}

command_test::command_test() {
  std::string pattern = testing::TempDir() + "command-XXXXXX";
  directory_ = mkdtemp(pattern.data());
}

command_test::~command_test() {
  std::filesystem::remove_all(directory_);
}

std::string command_test::path(std::string_view name) const {
  return (directory_ / name).string();
}

std::string command_test::expand(std::string text) const {
  for (auto at = text.find('@'); at != std::string::npos; at = text.find('@')) {
    text.replace(at, 1, directory_.string());
  }
  return text;
}

command_result command_test::run(const std::string& arguments, const std::string& before) const {
  const std::string out = path(".out");
  const std::string err = path(".err");
  const std::string line = before + COMMAND " " + expand(arguments) + " >" + out + " 2>" + err;
  const int status = std::system(line.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
}

void command_test::expect_clean_ends_under(const std::string& limit, const std::string& arguments,
                                           std::string_view trace) const {
  if (is_sanitized) return;
  // What whoever runs the tests has left open would count.
  ASSERT_EQ(close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC), 0);
  // The least with which a program can be started at all. One that comes up ends at a signal.
  const int least = limit == "nofile" ? 4 : 1;
  constexpr int most = 100;
  for (int allowed = least; allowed < most && !HasFailure(); ++allowed) {
    const std::string under = "--" + limit + "=" + std::to_string(allowed);
    SCOPED_TRACE(under);
    const command_result result =
        run(arguments, "timeout --preserve-status -s INT -k 5 5 prlimit " + under + " ");
    EXPECT_FALSE(std::filesystem::exists(path(trace)) && result.status != 0);
    if (result.status == 0) {
      EXPECT_GT(allowed, least);
      return;
    }
    EXPECT_TRUE(result.status == 1 || result.status == 2) << result.status;
    EXPECT_NE(result.complaint(), result.err);
  }
  ADD_FAILURE() << "does not succeed";
}

void command_test::put(std::string_view name, const std::string& text) const {
  std::ofstream(path(name), std::ios::binary) << text;
}

std::string command_test::get(std::string_view name) const {
  return read_file(path(name));
}

void command_test::put_capture(std::string_view name, const std::vector<timed_frame>& frames,
                               ports::link_layer link) const {
  ports::capture_writer writer(path(name), link);
  for (const timed_frame& frame : frames) {
    writer.write(frame.microseconds * nanoseconds_per_microsecond, frame.data);
  }
  writer.close();
}

std::vector<timed_frame> command_test::get_capture(std::string_view name) const {
  ports::capture_reader reader(path(name), ports::link_layer::ethernet);
  std::vector<timed_frame> frames;
  while (const auto frame = reader.next()) {
    frames.push_back({frame->time / nanoseconds_per_microsecond,
                      bytes(frame->bytes.begin(), frame->bytes.end())});
  }
  return frames;
}

std::vector<std::string> command_test::list(std::string_view name) const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path(name))) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace tarvelo::test
