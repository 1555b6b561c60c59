// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/kernel_fixture.h"

#include <cstdlib>
#include <ostream>
#include <string>
#include <utility>

#include "kernel/rcupdate.h"

namespace tarvelo::test {

log_capture::log_capture() {
  klog::set_sink(&log_capture::receive, this);
}

log_capture::~log_capture() {
  klog::set_sink(nullptr, nullptr);
}

std::vector<log_line> log_capture::take() {
  const std::lock_guard guard(mutex_);
  return std::exchange(lines_, {});
}

std::vector<std::string> log_capture::take_text() {
  std::vector<std::string> result;
  for (log_line& line : take())
    result.push_back(std::move(line.text));
  return result;
}

void log_capture::receive(void* self, klog::level at, const char* text) noexcept {
  auto* capture = static_cast<log_capture*>(self);
  const std::lock_guard guard(capture->mutex_);
  capture->lines_.push_back({at, text});
}

u32 kernel_test::default_start() {
  const char* const wanted = std::getenv("JIFFIES_START");
  return wanted != nullptr ? static_cast<u32>(std::stoul(wanted, nullptr, 0)) : 0xFFFFFF00;
}

kernel_test::kernel_test(u32 start) {
  fault::fail_allocation(0);
  fault::fail_user_copies(false);
  rcu_barrier();
  kernel_clock::start_at(start);
  before_ = fault::now();
}

kernel_test::~kernel_test() {
  fault::fail_allocation(0);
  fault::fail_user_copies(false);
  rcu_barrier();
  EXPECT_EQ(fault::now(), before_) << "something taken during the test has not been given back";
}

}  // namespace tarvelo::test

namespace fault {

void PrintTo(const outstanding& out, std::ostream* to) {
  *to << out.allocations << " allocations, " << out.slab_objects << " slab objects, "
      << out.slab_caches << " slab caches, " << out.buffers << " buffers, " << out.proc_entries
      << " proc entries, " << out.connections << " connections";
}

}  // namespace fault
