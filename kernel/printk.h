// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel log. A message may begin with a level (KERN_ERR and so on); without one it has the
// default level. Formats are C's, and the kernel's %pI4 (address in network order, dotted quad),
// %pI6 (eight full groups) and %pM (MAC address), with width and '-' flag. A null %p prints as
// "(null)".
//
// Any context. Where the text goes is set by log_sink(); at first it goes to standard error.
#pragma once

#include "kernel/types.h"

#define KERN_SOH "\001"
#define KERN_ERR KERN_SOH "3"
#define KERN_WARNING KERN_SOH "4"
#define KERN_INFO KERN_SOH "6"

extern "C" {
int printk(const char* format, ...) noexcept;
/// The kernel's snprintf: writes at most `size` bytes with the NUL, returns the length that the
/// whole text has.
int scnprintf_full(char* to, std::size_t size, const char* format, ...) noexcept;
int vscnprintf_full(char* to, std::size_t size, const char* format,
                    __builtin_va_list args) noexcept;
}

namespace klog {

enum class level : u8 {
  error = 3,
  warning = 4,
  normal = 5,  ///< a message without a level
  info = 6,
};

/// Gets every message, without its level mark, exactly as printed: a trailing newline is there or
/// not. Called from any context; must not call printk.
using sink = void (*)(void* context, level at, const char* text) noexcept;

/// Sets the receiver of all further messages; null restores standard error.
void set_sink(sink receiver, void* context) noexcept;

}  // namespace klog
