// SPDX-License-Identifier: GPL-2.0-only
#include "app/output_directory.h"

#include <gtest/gtest.h>

#include <fstream>

#include "app/input_error.h"

namespace tarvelo::app {
namespace {

namespace fs = std::filesystem;

class output_directory_test : public testing::Test {
 protected:
  output_directory_test() {
    std::string pattern = testing::TempDir() + "output-XXXXXX";
    top_ = mkdtemp(pattern.data());
  }
  ~output_directory_test() override { fs::remove_all(top_); }

  [[nodiscard]] std::string content(const fs::path& file) const {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  fs::path top_;
};

TEST_F(output_directory_test, nothing_appears_before_the_commit_or_stays_without_it) {
  const fs::path target = top_ / "a" / "b";
  {
    output_directory out(target.string());
    out.write("one", "1");
    out.write("sub/two", "2");
    EXPECT_FALSE(fs::exists(target / "one"));
  }
  EXPECT_TRUE(fs::is_empty(top_));
  {
    output_directory out(target.string() + "/");
    out.write("one", "1");
    out.write("sub/two", "2");
    out.commit();
  }
  EXPECT_EQ(content(target / "one"), "1");
  EXPECT_EQ(content(target / "sub" / "two"), "2");
  EXPECT_EQ(std::distance(fs::directory_iterator(target), {}), 2);
}

TEST_F(output_directory_test, a_failure_keeps_what_was_there) {
  std::ofstream(top_ / "one") << "old";
  { output_directory(top_.string()).write("one", "new"); }
  EXPECT_EQ(content(top_ / "one"), "old");
  fs::create_directory(top_ / "two");
  output_directory out(top_.string());
  EXPECT_THROW((void)out.staged("two"), input_error);
  EXPECT_THROW((void)out.staged("one/three"), input_error);
}

TEST_F(output_directory_test, links_lead_nothing_out_of_the_directory) {
  const fs::path inside = top_ / "inside";
  const fs::path outside = top_ / "outside";
  fs::create_directories(inside);
  fs::create_directories(outside);
  std::ofstream(outside / "file") << "theirs";
  fs::create_symlink(outside, inside / "sub");
  fs::create_symlink(outside / "missing", inside / "dangling");
  fs::create_symlink(outside / "file", inside / "one");
  output_directory out(inside.string());
  EXPECT_THROW((void)out.staged("sub/two"), input_error);
  EXPECT_THROW((void)out.staged("dangling/two"), input_error);
  out.write("one", "ours");
  out.commit();
  EXPECT_EQ(content(outside / "file"), "theirs");
  EXPECT_FALSE(fs::is_symlink(inside / "one"));
  EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 1);
}

TEST_F(output_directory_test, a_place_that_cannot_be_made_is_bad_input) {
  std::ofstream(top_ / "file") << "";
  EXPECT_THROW(output_directory((top_ / "file").string()), input_error);
  EXPECT_THROW(output_directory((top_ / "file" / "x").string()), input_error);
  EXPECT_THROW(output_directory("/proc/x"), input_error);
}

}  // namespace
}  // namespace tarvelo::app
