// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/jiffies.h"

#include "kernel/sanitizers.h"

extern "C" {
volatile u32 jiffies = 0;
}

#ifdef HOSTED_TSAN
// The clock's thread writes `jiffies` while every other reads it, a word that needs no order. It
// keeps the kernel's type, which is volatile and not atomic, so the sanitizer has to be told: of
// this one variable, by its whole name, and of nothing else in the program.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:^jiffies$\n";
}
#endif
