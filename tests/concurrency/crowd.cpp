// SPDX-License-Identifier: GPL-2.0-only
#include "tests/concurrency/crowd.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

#include "kernel/context.h"
#include "kernel/fast_path.h"
#include "kernel/proc_tree.h"

namespace tarvelo::test {
namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds round_time{100};

[[nodiscard]] u32 cached() {
  return kcih->ipc_count + kcih->ipc_v6_count;
}

void end_in_peace(const ending& way) {
  const u32 before = cached();
  ASSERT_NE(before, 0U);
  way.happen();
  EXPECT_EQ(cached() == 0, way.leaves == left::nothing);
  EXPECT_EQ(cached() == before, way.leaves == left::all);
}

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

void crowd::end_while_all_work(const ending& way) {
  work_during([&way] {
    const auto end = clock::now() + round_time;
    do {
      if (!way.only_in_peace) way.happen();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } while (clock::now() < end);
  });
}

void crowd::work_in_rounds(const std::vector<ending>& endings, const std::function<void()>& fill,
                           const std::function<void()>& look) {
  const auto end = clock::now() + crowd_time();
  do {
    for (const ending& way : endings) {
      SCOPED_TRACE(way.name);
      end_while_all_work(way);
      look();
      fill();
      end_in_peace(way);
      look();
      if (testing::Test::HasFailure()) return;
    }
  } while (clock::now() < end);
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
