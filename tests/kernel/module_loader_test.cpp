// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/module_loader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "kernel/errno.h"
#include "kernel/fault.h"
#include "kernel/proc_tree.h"

namespace {

bool has_file() {
  proc::entry_info info;
  return proc::stat("sample", &info);
}

struct notes {
  std::string text;

  notes() {
    const module_notifier to{[](void* n) { static_cast<notes*>(n)->text += "live "; },
                             [](void* n) {
                               // The module is still whole when it is told about.
                               static_cast<notes*>(n)->text += has_file() ? "going " : "gone ";
                             },
                             this};
    set_module_notifier(&to);
  }
  ~notes() { set_module_notifier(nullptr); }
};

TEST(ModuleLoader, TellsOfTheModuleWhileItIsWhole) {
  const auto before = fault::now();
  notes told;
  std::string error;
  auto loaded = loaded_module::load(SAMPLE_GOOD, &error);
  ASSERT_NE(loaded, nullptr) << error;
  EXPECT_TRUE(has_file());
  EXPECT_EQ(told.text, "live ");
  EXPECT_TRUE(loaded->unload());
  EXPECT_EQ(told.text, "live going ");
  EXPECT_FALSE(has_file());
  EXPECT_EQ(fault::now(), before);
}

TEST(ModuleLoader, AnOpenFileHoldsTheModule) {
  std::string error;
  auto loaded = loaded_module::load(SAMPLE_GOOD, &error);
  ASSERT_NE(loaded, nullptr) << error;
  int open_error = 0;
  auto file = proc::open_file::open("sample", &open_error);
  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(loaded->unload());
  EXPECT_TRUE(has_file()) << "a refused unload changes nothing";
  file.reset();
  EXPECT_TRUE(loaded->unload());
  EXPECT_EQ(proc::open_file::open("sample", &open_error), nullptr);
  EXPECT_EQ(open_error, -ENOENT);
}

TEST(ModuleLoader, RefusesWithTheReason) {
  const char* const not_a_module = "not_a_module.so";
  if (std::FILE* f = std::fopen(not_a_module, "w")) {
    std::fputs("\177ELF and then nothing", f);
    std::fclose(f);
  }
  const struct {
    const char* path;
    const char* reason;
  } rows[] = {
      {SAMPLE_FOREIGN, "licence is \"Proprietary\", not \"GPL\""},
      {SAMPLE_DEPENDENT, "depends on \"other\""},
      {SAMPLE_FAILING, "init_module failed with -1"},
      {not_a_module, "not a module of this machine"},
      {"there/is/none.so", "cannot open the module"},
  };
  for (const auto& row : rows) {
    std::string error;
    EXPECT_EQ(loaded_module::load(row.path, &error), nullptr) << row.path;
    EXPECT_NE(error.find(row.reason), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_FALSE(has_file());
  }
  std::remove(not_a_module);
}

}  // namespace
