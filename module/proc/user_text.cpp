// SPDX-License-Identifier: GPL-2.0-only
#include "module/proc/user_text.h"

#include "kernel/errno.h"
#include "kernel/printk.h"
#include "kernel/uaccess.h"
#include "module/core/memory.h"

namespace tarvelo {
namespace {

/// Far more than any value needs; keeps a user from taking atomic memory at will.
constexpr unsigned long longest_write = 4096;

}  // namespace

user_text::user_text(const char* buffer, std::size_t count, const char* parser, int line) {
  if (count > longest_write) {
    printk(KERN_ERR "user write proc count > %lu\n", longest_write);
    error_ = -ENOMEM;
    return;
  }
  text_ = static_cast<char*>(plat_malloc_t(count + 1));
  if (text_ == nullptr) {
    printk(KERN_ERR "%s %d kmalloc ubuf failed\n", parser, line);
    error_ = -ENOMEM;
    return;
  }
  if (copy_from_user(text_, buffer, count) != 0) {
    printk(KERN_ERR "copy_from_user failed\n");
    plat_mfree_t(text_, count + 1);
    text_ = nullptr;
    error_ = -EFAULT;
    return;
  }
  text_[count] = '\0';
}

user_text::~user_text() {
  kfree(text_);
}

}  // namespace tarvelo
