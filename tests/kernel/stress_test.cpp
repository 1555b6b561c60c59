// SPDX-License-Identifier: GPL-2.0-only
//
// Several processors at once, for a bounded number of rounds. Most is found by the sanitizers.
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "kernel/context.h"
#include "kernel/fault.h"
#include "kernel/jiffies.h"
#include "kernel/mutex.h"
#include "kernel/rcupdate.h"
#include "kernel/route.h"
#include "kernel/slab.h"
#include "kernel/spinlock.h"
#include "kernel/timer.h"
#include "tests/kernel/small_random.h"

namespace {

constexpr int workers = 3;

template <typename Work>
void in_parallel(Work work) {
  std::vector<std::thread> threads;
  for (int i = 0; i < workers; ++i) {
    threads.emplace_back([&work, i] {
      hosted::set_processor(static_cast<unsigned>(i) + 1);
      work(static_cast<unsigned>(i));
    });
  }
  for (std::thread& t : threads)
    t.join();
}

TEST(Stress, TimersAreStartedPutOffAndStoppedWhileTheClockRuns) {
  struct counted {
    timer_list timer;
    std::atomic<int> runs;
  };
  std::deque<counted> timers(64);
  for (counted& c : timers) {
    setup_timer(
        &c.timer, [](unsigned long p) { ++reinterpret_cast<counted*>(p)->runs; },
        reinterpret_cast<unsigned long>(&c));
  }
  kernel_clock::start_at(0xFFFFF000);
  std::atomic<bool> stop{false};
  std::thread clock([&] {
    while (!stop)
      kernel_clock::advance_to(jiffies + 3);
  });
  std::atomic<int> started{0};
  std::atomic<int> stopped{0};
  in_parallel([&](unsigned seed) {
    small_random random(seed);
    for (int i = 0; i < 20000; ++i) {
      counted& c = timers[random() % timers.size()];
      const u32 expires = jiffies + random() % 700;
      switch (random() % 4) {
        case 0:
          started += 1 - mod_timer(&c.timer, expires);
          break;
        case 1:
          stopped += del_timer(&c.timer);
          break;
        default:
          mod_timer_pending(&c.timer, expires);
      }
    }
  });
  for (counted& c : timers)
    stopped += del_timer_sync(&c.timer);
  stop = true;
  clock.join();
  int runs = 0;
  for (counted& c : timers)
    runs += c.runs;
  EXPECT_EQ(started, stopped + runs) << "each start ends in one run or one stop";
}

TEST(Stress, ReadersNeverSeeWhatHasBeenFreed) {
  struct node {
    int value;
    callback_head rcu;
  };
  const auto before = fault::now();
  const auto make = [](int value) {
    auto* n = static_cast<node*>(kmalloc(sizeof(node), GFP_KERNEL));
    n->value = value;
    return n;
  };
  node* shared = make(1);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      node* old = shared;
      rcu_assign_pointer(shared, make(1));
      call_rcu(&old->rcu, [](callback_head* head) {
        auto* n = reinterpret_cast<node*>(reinterpret_cast<char*>(head) - offsetof(node, rcu));
        n->value = 0;
        kfree(n);
      });
    }
    stop = true;
  });
  std::atomic<int> bad{0};
  in_parallel([&](unsigned) {
    while (!stop) {
      const hosted::softirq_scope softirq;
      for (int i = 0; i < 16; ++i)
        bad += rcu_dereference(shared)->value != 1;
    }
  });
  writer.join();
  EXPECT_EQ(bad, 0);
  rcu_barrier();
  kfree(shared);
  EXPECT_EQ(fault::now(), before);
}

TEST(Stress, RoutesChangeUnderTheirReaders) {
  const auto before = fault::now();
  net_device* dev = alloc_netdev("eth0", ARPHRD_ETHER);
  ASSERT_EQ(ip_route_add(0, 0, RTN_UNICAST, 0, dev), 0);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    small_random random(1);
    for (int i = 0; i < 3000; ++i) {
      const u32 prefix = random() & 0x00F1F10A;  // 10.x.x.0 in network order
      if (ip_route_add(prefix, 24, RTN_UNICAST, 0, dev) != 0) ip_route_del(prefix, 24);
    }
    stop = true;
  });
  std::atomic<int> lost{0};
  in_parallel([&](unsigned seed) {
    small_random random(seed);
    while (!stop) {
      sk_buff* skb = alloc_skb(64, GFP_ATOMIC);
      {
        const hosted::softirq_scope softirq;
        lost += ip_route_input_noref(skb, random() & 0x00F1F10A, 0, 0, dev) != 0;
        skb_dst_force(skb);
      }
      kfree_skb(skb);
    }
  });
  writer.join();
  EXPECT_EQ(lost, 0) << "the default route is always there";
  ip_route_flush(nullptr);
  rcu_barrier();
  free_netdev(dev);
  EXPECT_EQ(fault::now(), before);
}

TEST(Stress, LocksExclude) {
  spinlock_t spin{};
  rwlock_t rw{};
  mutex sleeping{};
  int by_spin = 0;
  int by_rw = 0;
  int by_mutex = 0;
  std::atomic<int> torn{0};
  in_parallel([&](unsigned) {
    for (int i = 0; i < 5000; ++i) {
      spin_lock_bh(&spin);
      ++by_spin;
      spin_unlock_bh(&spin);
      if (i % 4 == 0) {
        write_lock_bh(&rw);
        by_rw += 2;
        write_unlock_bh(&rw);
      } else {
        read_lock_bh(&rw);
        torn += by_rw % 2;
        read_unlock_bh(&rw);
      }
      mutex_lock(&sleeping);
      ++by_mutex;
      mutex_unlock(&sleeping);
    }
  });
  EXPECT_EQ(by_spin, workers * 5000);
  EXPECT_EQ(by_rw, workers * 1250 * 2);
  EXPECT_EQ(by_mutex, workers * 5000);
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(spin.slock, 0U);
  EXPECT_EQ(rw.count, 0);
}

}  // namespace
