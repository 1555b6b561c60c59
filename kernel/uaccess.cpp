// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/uaccess.h"

#include <cstring>

#include "kernel/account.h"

extern "C" {

unsigned long copy_from_user(void* to, const void* from, unsigned long n) noexcept {
  if (from == nullptr || read_once(hosted::user_copies_fail)) return n;
  std::memcpy(to, from, n);
  return 0;
}

unsigned long copy_to_user(void* to, const void* from, unsigned long n) noexcept {
  if (to == nullptr) return n;
  std::memcpy(to, from, n);
  return 0;
}

}  // extern "C"
