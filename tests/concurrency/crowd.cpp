// SPDX-License-Identifier: GPL-2.0-only
#include "tests/concurrency/crowd.h"

#include <array>
#include <atomic>
#include <thread>

#include "kernel/context.h"
#include "kernel/proc_tree.h"

namespace tarvelo::test {
namespace {

constexpr std::chrono::milliseconds round_time{150};

}  // namespace

void crowd::work_during(const std::function<void()>& deed) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  ++rounds_;
  for (unsigned i = 0; i < workers_.size(); ++i) {
    threads.emplace_back([this, i, &stop] {
      hosted::set_processor(i + 1);
      small_random random(rounds_ * hosted::max_processors + i);
      while (!stop.load(std::memory_order_relaxed))
        workers_[i](random);
    });
  }
  deed();
  stop.store(true, std::memory_order_relaxed);
  for (std::thread& thread : threads)
    thread.join();
}

void crowd::work_in_rounds(const std::function<void()>& look) {
  const auto end = std::chrono::steady_clock::now() + crowd_time();
  while (std::chrono::steady_clock::now() < end) {
    work_during([] { std::this_thread::sleep_for(round_time); });
    look();
  }
}

void read_some(const char* path, small_random& random) {
  int error = 0;
  const auto file = proc::open_file::open(path, &error);
  if (file == nullptr) return;
  std::array<char, 300> piece;
  const std::size_t size = 1 + random() % piece.size();
  for (unsigned reads = random() % 30; reads != 0 && file->read(piece.data(), size) > 0; --reads)
    std::this_thread::yield();
}

void rest(small_random& random, unsigned most) {
  std::this_thread::sleep_for(std::chrono::milliseconds(random() % (most + 1)));
}

}  // namespace tarvelo::test
