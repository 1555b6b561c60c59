// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/jiffies.h"

extern "C" {
volatile u32 jiffies = 0;
}

#ifdef __SANITIZE_THREAD__
// The clock's thread writes `jiffies` while every other reads it, a word that needs no order. It
// keeps the kernel's type, so the sanitizer has to be told.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:jiffies\n";
}
#endif
