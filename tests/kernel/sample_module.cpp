// SPDX-License-Identifier: GPL-2.0-only
//
// The smallest module: a control file whose operations pin it.
#include "kernel/fs.h"
#include "kernel/proc_fs.h"

#ifndef SAMPLE_DEPENDS
#define SAMPLE_DEPENDS ""
#endif
#ifndef SAMPLE_INIT
#define SAMPLE_INIT 0
#endif

#define SAMPLE_SECTION [[gnu::section(".modinfo"), gnu::used]]

namespace {

SAMPLE_SECTION const char licence[] = "license=" SAMPLE_LICENCE;
SAMPLE_SECTION const char depends[] = "depends=" SAMPLE_DEPENDS;

ssize_type read_nothing(file*, char*, std::size_t, loff_type*) {
  return 0;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] module __this_module{"sample", {0}};

namespace {
const file_operations operations{&__this_module, nullptr, read_nothing, nullptr, nullptr, nullptr};
}

[[gnu::visibility("default")]] int init_module();
[[gnu::visibility("default")]] void cleanup_module();

int init_module() {
  if (SAMPLE_INIT != 0) return SAMPLE_INIT;
  return proc_create_data("sample", 0444, nullptr, &operations, nullptr) != nullptr ? 0 : -1;
}

void cleanup_module() {
  remove_proc_entry("sample", nullptr);
}
}
