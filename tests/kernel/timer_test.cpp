// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/timer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <vector>

#include "kernel/context.h"
#include "kernel/jiffies.h"
#include "tests/kernel/small_random.h"

namespace {

/// Timers that note when they ran.
class Timers : public testing::Test {
 protected:
  struct noting {
    timer_list timer;
    std::vector<u32> ran_at;
  };

  ~Timers() override {
    for (noting& n : timers_)
      del_timer(&n.timer);
  }

  noting* make() {
    noting& n = timers_.emplace_back();
    setup_timer(&n.timer, note, reinterpret_cast<unsigned long>(&n));
    return &n;
  }

  static void note(unsigned long data) {
    EXPECT_TRUE(hosted::in_softirq());
    reinterpret_cast<noting*>(data)->ran_at.push_back(u32{jiffies});
  }

  std::deque<noting> timers_;
};

using ran = std::vector<u32>;

TEST_F(Timers, RunAtTheirExpiryWhereverJiffiesStands) {
  const u32 distances[] = {1,     2,     255,      256,      257,       65535,     65536,
                           65537, 70000, 16777215, 16777216, 300000000, 2147483647};
  for (const u32 start : {0U, 100U, 255U, 65535U, 0x7FFFFF00U, 0xFFFFFF00U, 0xFFFFFFFFU}) {
    for (const u32 distance : distances) {
      kernel_clock::start_at(start);
      noting* n = make();
      mod_timer(&n->timer, start + distance);
      kernel_clock::advance_to(start + distance - 1);
      EXPECT_TRUE(n->ran_at.empty()) << start << " + " << distance;
      kernel_clock::advance_to(start + distance);
      EXPECT_EQ(n->ran_at, ran{start + distance}) << start << " + " << distance;
      EXPECT_FALSE(timer_pending(&n->timer));
    }
  }
}

TEST_F(Timers, RunInTheOrderOfTheirExpiriesAcrossTheWrap) {
  // Random sets, one long step or many short ones, compared with a sorted list.
  small_random random(7);
  for (const u32 step : {1U, 37U, 1000U, 5000000U}) {
    const u32 start = 0xFFFFFFFFU - step * 20;
    kernel_clock::start_at(start);
    static std::vector<u32> order;
    order.clear();
    std::vector<u32> expected;
    std::deque<timer_list> timers(300);
    for (timer_list& timer : timers) {
      const u32 expires = start + 1 + random() % (step * 40);
      setup_timer(
          &timer, [](unsigned long at) { order.push_back(static_cast<u32>(at)); }, expires);
      mod_timer(&timer, expires);
      expected.push_back(expires - start);
    }
    for (u32 i = 1; i <= 40; ++i)
      kernel_clock::advance_to(start + i * step);
    std::sort(expected.begin(), expected.end());
    for (u32& at : order)
      at -= start;
    EXPECT_EQ(order, expected) << step;
  }
}

TEST_F(Timers, MovedAndStopped) {
  kernel_clock::start_at(1000);
  const struct {
    u32 first;
    u32 then;
  } rows[] = {{1100, 1200}, {1200, 1100}, {1100, 90000}, {90000, 1050}, {1100, 1100}};
  for (const auto& row : rows) {
    for (int (*move)(timer_list*, u32) : {mod_timer, mod_timer_pending}) {
      kernel_clock::start_at(1000);
      noting* n = make();
      EXPECT_EQ(mod_timer(&n->timer, row.first), 0);
      EXPECT_EQ(move(&n->timer, row.then), 1);
      kernel_clock::advance_to(100000);
      EXPECT_EQ(n->ran_at, ran{row.then});
    }
  }
  noting* stopped = make();
  EXPECT_EQ(mod_timer_pending(&stopped->timer, 200000), 0) << "a stopped timer is not revived";
  mod_timer(&stopped->timer, 100010);
  EXPECT_EQ(del_timer(&stopped->timer), 1);
  EXPECT_EQ(del_timer_sync(&stopped->timer), 0);
  kernel_clock::advance_to(300000);
  EXPECT_TRUE(stopped->ran_at.empty());
}

TEST_F(Timers, PutOffTimeAndAgainThenRunsOnce) {
  kernel_clock::start_at(0xFFFFFF00);
  noting* n = make();
  mod_timer(&n->timer, 0xFFFFFF00 + 100);
  u32 now = 0xFFFFFF00;
  for (int i = 0; i < 1000; ++i) {
    kernel_clock::advance_to(++now);
    mod_timer_pending(&n->timer, now + 100);
  }
  EXPECT_TRUE(n->ran_at.empty());
  kernel_clock::advance_to(now + 5000);
  EXPECT_EQ(n->ran_at, ran{now + 100});
}

TEST_F(Timers, MayBeSetAgainFromTheirOwnFunction) {
  struct periodic {
    timer_list timer;
    std::vector<u32> ran_at;
  } p;
  kernel_clock::start_at(0);
  setup_timer(
      &p.timer,
      [](unsigned long data) {
        auto* self = reinterpret_cast<periodic*>(data);
        self->ran_at.push_back(u32{jiffies});
        // The second expiry is in the past: it runs at the next tick, not at once or never.
        if (self->ran_at.size() < 4) {
          mod_timer(&self->timer, self->ran_at.size() == 1 ? jiffies - 5 : jiffies + 300);
        }
      },
      reinterpret_cast<unsigned long>(&p));
  mod_timer(&p.timer, 10);
  kernel_clock::advance_to(5000);
  EXPECT_EQ(p.ran_at, (ran{10, 11, 311, 611}));
  EXPECT_EQ(jiffies, 5000U);
}

TEST_F(Timers, OneCanStopAnotherThatIsDueAtTheSameTick) {
  kernel_clock::start_at(0);
  noting* first = make();
  noting* second = make();
  struct pair {
    noting* a;
    noting* b;
  } both{first, second};
  timer_list stopper;
  setup_timer(
      &stopper,
      [](unsigned long data) {
        auto* p = reinterpret_cast<pair*>(data);
        EXPECT_EQ(del_timer(&p->a->timer), 1);
        EXPECT_EQ(mod_timer(&p->b->timer, jiffies + 7), 1);
      },
      reinterpret_cast<unsigned long>(&both));
  mod_timer(&stopper, 50);
  mod_timer(&first->timer, 50);
  mod_timer(&second->timer, 50);
  kernel_clock::advance_to(100);
  EXPECT_TRUE(first->ran_at.empty());
  EXPECT_EQ(second->ran_at, ran{57});
}

}  // namespace
