// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "kernel/errno.h"
#include "kernel/fault.h"
#include "kernel/proc_fs.h"
#include "kernel/proc_tree.h"
#include "kernel/seq_file.h"

namespace {

std::string stored;
int releases = 0;

int show(seq_file* m, void*) {
  seq_printf(m, "%s", stored.c_str());
  return 0;
}

/// A file that keeps what is written to it.
const file_operations keeping{
    nullptr,
    seq_lseek,
    seq_read,
    [](file*, const char* text, std::size_t n, loff_type*) -> ssize_type {
      stored.assign(text, n);
      return static_cast<ssize_type>(n);
    },
    [](inode* node, file* f) { return single_open(f, show, PDE_DATA(node)); },
    [](inode* node, file* f) {
      ++releases;
      return single_release(node, f);
    }};

class Files : public testing::Test {
 protected:
  Files() : before_(fault::now()) {
    stored = "hello\n";
    releases = 0;
    dir_ = proc_mkdir("dir", nullptr);
  }
  ~Files() override {
    remove_proc_entry("dir", nullptr);
    EXPECT_EQ(fault::now(), before_);
  }

  fault::outstanding before_;
  proc_dir_entry* dir_;
};

TEST_F(Files, AreListedInTheOrderOfTheirMaking) {
  for (const char* name : {"zebra", "apple", "mango"}) {
    ASSERT_NE(proc_create_data(name, 0640, dir_, &keeping, nullptr), nullptr);
  }
  EXPECT_EQ(proc_create_data("apple", 0640, dir_, &keeping, nullptr), nullptr) << "name is taken";
  EXPECT_EQ(proc_mkdir("dir", nullptr), nullptr);
  std::string names;
  for (const auto& entry : proc::list("dir"))
    names += entry.name + " ";
  EXPECT_EQ(names, "zebra apple mango ");
  proc::entry_info info;
  ASSERT_TRUE(proc::stat("dir/apple", &info));
  EXPECT_EQ(info.mode, 0640);
  EXPECT_FALSE(info.directory);
  EXPECT_TRUE(proc::stat("dir", &info) && info.directory);
  EXPECT_TRUE(proc::stat("", &info) && info.directory);
  EXPECT_FALSE(proc::stat("dir/none", &info));
  EXPECT_TRUE(proc::list("none").empty());
}

TEST_F(Files, AreReadAndWritten) {
  ASSERT_NE(proc_create_data("file", 0644, dir_, &keeping, nullptr), nullptr);
  std::string text;
  int error = 0;
  ASSERT_TRUE(proc::read_all("dir/file", &text, &error));
  EXPECT_EQ(text, "hello\n");
  EXPECT_EQ(proc::write_all("dir/file", "bye"), 3);
  auto opened = proc::open_file::open("dir/file", &error);
  char buffer[8];
  EXPECT_EQ(opened->read_at(buffer, sizeof buffer, 1), 2);
  EXPECT_EQ(std::memcmp(buffer, "ye", 2), 0);
  EXPECT_EQ(opened->seek(2, SEEK_SET), 2);
  EXPECT_EQ(opened->read(buffer, sizeof buffer), 1);
  opened.reset();
  EXPECT_EQ(releases, 3);
  EXPECT_FALSE(proc::read_all("dir", &text, &error));
  EXPECT_EQ(error, -EISDIR);
  EXPECT_EQ(proc::write_all("dir/none", "x"), -ENOENT);
}

TEST_F(Files, WithoutAnOperationRefuseIt) {
  const file_operations bare{};
  ASSERT_NE(proc_create_data("bare", 0444, dir_, &bare, nullptr), nullptr);
  int error = 0;
  auto opened = proc::open_file::open("dir/bare", &error);
  char c = 0;
  EXPECT_EQ(opened->read(&c, 1), -EINVAL);
  EXPECT_EQ(opened->write(&c, 1), -EIO);
}

TEST_F(Files, AnOpenFileOutlivesItsRemoval) {
  ASSERT_NE(proc_create_data("file", 0644, dir_, &keeping, nullptr), nullptr);
  int error = 0;
  auto opened = proc::open_file::open("dir/file", &error);
  remove_proc_entry("file", dir_);
  EXPECT_EQ(releases, 1) << "its operations are not needed any more";
  char c = 0;
  EXPECT_EQ(opened->read(&c, 1), -ENOENT);
  EXPECT_EQ(opened->write(&c, 1), -ENOENT);
  EXPECT_EQ(opened->seek(0, SEEK_SET), -ENOENT);
  opened.reset();
  EXPECT_EQ(releases, 1);
  remove_proc_entry("file", dir_);  // there is none: nothing happens
}

TEST_F(Files, RemovalWaitsForARunningOperation) {
  static std::atomic<bool> inside;
  static std::atomic<bool> may_leave;
  static std::atomic<bool> removed;
  inside = may_leave = removed = false;
  const file_operations slow{nullptr,
                             nullptr,
                             [](file*, char*, std::size_t, loff_type*) -> ssize_type {
                               inside = true;
                               while (!may_leave)
                                 std::this_thread::yield();
                               return removed ? 1 : 0;
                             },
                             nullptr,
                             nullptr,
                             nullptr};
  ASSERT_NE(proc_create_data("slow", 0444, dir_, &slow, nullptr), nullptr);
  ssize_type result = -1;
  std::thread reader([&] {
    int error = 0;
    char c = 0;
    result = proc::open_file::open("dir/slow", &error)->read(&c, 1);
  });
  while (!inside)
    std::this_thread::yield();
  std::thread remover([&] {
    remove_proc_entry("slow", dir_);
    removed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  may_leave = true;
  reader.join();
  remover.join();
  EXPECT_EQ(result, 0) << "the entry was still there when the operation ended";
}

}  // namespace
