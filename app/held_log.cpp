// SPDX-License-Identifier: GPL-2.0-only
#include "app/held_log.h"

#include <cstdio>

namespace tarvelo::app {

void held_log::release() {
  klog::set_sink(nullptr, nullptr);
  std::fputs(text_.c_str(), stderr);
  text_.clear();
}

void held_log::keep(void* self, klog::level, const char* text) noexcept {
  static_cast<held_log*>(self)->text_ += text;
}

}  // namespace tarvelo::app
