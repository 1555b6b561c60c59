// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/printk.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

/// Longest message, as in the kernel; what is longer is cut.
constexpr std::size_t most_text = 1024;

constinit std::mutex sink_lock;
constinit klog::sink receiver = nullptr;
constinit void* receiver_context = nullptr;

/// Splits the level mark off a message.
const char* split_level(const char* text, klog::level* at) noexcept {
  *at = klog::level::normal;
  if (text[0] != KERN_SOH[0] || text[1] == '\0') return text;
  switch (text[1]) {
    case '3':
      *at = klog::level::error;
      break;
    case '4':
      *at = klog::level::warning;
      break;
    case '6':
      *at = klog::level::info;
      break;
    default:
      break;
  }
  return text + 2;
}

}  // namespace

extern "C" int printk(const char* format, ...) noexcept {
  char text[most_text];
  va_list args;
  va_start(args, format);
  const int length = vscnprintf_full(text, sizeof text, format, args);
  va_end(args);
  klog::level at;
  const char* message = split_level(text, &at);
  const std::scoped_lock guard(sink_lock);
  if (receiver != nullptr) {
    receiver(receiver_context, at, message);
  } else {
    std::fputs(message, stderr);
  }
  return length;
}

namespace klog {

void set_sink(sink to, void* context) noexcept {
  const std::scoped_lock guard(sink_lock);
  receiver = to;
  receiver_context = context;
}

}  // namespace klog
