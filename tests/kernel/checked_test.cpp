// SPDX-License-Identifier: GPL-2.0-only
//
// Each fault that a checked build knows ends the program with one line that names both places.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "kernel/context.h"
#include "kernel/errno.h"
#include "kernel/mutex.h"
#include "kernel/nf_conntrack.h"
#include "kernel/rcupdate.h"
#include "kernel/route.h"
#include "kernel/skbuff.h"
#include "kernel/slab.h"
#include "kernel/spinlock.h"
#include "kernel/timer.h"

namespace {

TEST(Mutex, AnInterruptedWaitTakesNothing) {
  mutex m{};
  hosted_set_signal_pending();
  EXPECT_EQ(mutex_lock_interruptible(&m), -EINTR);
  ASSERT_EQ(mutex_lock_interruptible(&m), 0) << "only the next wait";
  mutex_unlock(&m);
}

/// Two places of which the message must name the later and the earlier.
constexpr code_place earlier{"earlier.cpp", 11};
constexpr code_place later{"later.cpp", 22};

spinlock_t lock_a{};
spinlock_t lock_b{};
spinlock_t lock_c{};
mutex sleeping{};

void nothing(unsigned long) {}

void take_in_a_cycle() {
  spin_lock_bh(&lock_a);
  spin_lock_bh(&lock_b, earlier);
  spin_unlock_bh(&lock_b);
  spin_unlock_bh(&lock_a);
  spin_lock_bh(&lock_b);
  spin_lock_bh(&lock_c);
  spin_unlock_bh(&lock_c);
  spin_unlock_bh(&lock_b);
  spin_lock_bh(&lock_c, earlier);
  spin_lock_bh(&lock_a, later);
}

void release_anothers_lock() {
  std::thread([] { spin_lock_bh(&lock_a, earlier); }).join();
  spin_unlock_bh(&lock_a, later);
}

void leave_softirq_with_a_lock() {
  hosted::enter_softirq(code_place::here());
  spin_lock(&lock_a, earlier);
  hosted::leave_softirq(later);
}

void use_in_softirq_and_outside() {
  {
    const hosted::softirq_scope softirq;
    spin_lock(&lock_a, earlier);
    spin_unlock(&lock_a);
  }
  spin_lock(&lock_a, later);
}

void free_twice() {
  sk_buff* skb = alloc_skb(64, GFP_ATOMIC);
  kfree_skb(skb, earlier);
  kfree_skb(skb, later);
}

void use_after_free() {
  sk_buff* skb = alloc_skb(64, GFP_ATOMIC);
  kfree_skb(skb, earlier);
  skb_put(skb, 4, later);
}

/// The connection outlives the drop, yet the drop might have been the last.
void drop_under_a_lock_that_the_end_takes() {
  nf_ct_destroy = [](nf_conntrack*) {
    spin_lock_bh(&lock_a, earlier);
    spin_unlock_bh(&lock_a);
  };
  nf_conntrack_put(&nf_conntrack_alloc()->ct_general);
  nf_conn* ct = nf_conntrack_alloc();
  nf_conntrack_get(&ct->ct_general);
  spin_lock_bh(&lock_a);
  nf_conntrack_put(&ct->ct_general, later);
}

void drop_below_zero() {
  nf_conn* ct = nf_conntrack_alloc();
  atomic_set(&ct->ct_general.use, 0);
  nf_conntrack_put(&ct->ct_general, later);
}

void drop_route_below_zero() {
  dst_entry dst{};
  dst_release(&dst, later);
}

void wait_for_a_timer_in_softirq() {
  timer_list timer;
  setup_timer(&timer, nothing, 0);
  hosted::enter_softirq(earlier);
  del_timer_sync(&timer, later);
}

void free_memory_with_a_held_lock() {
  auto* lock = static_cast<spinlock_t*>(kzalloc(sizeof(spinlock_t), GFP_KERNEL));
  spin_lock_bh(lock, earlier);
  kfree(lock);
}

struct fault_row {
  const char* message;  ///< what is said of it; both places follow
  void (*commit)();
  bool names_later = true;
  bool names_earlier = true;
};

const fault_row rows[] = {
    {"lock taken twice by one context",
     [] {
       spin_lock_bh(&lock_a, earlier);
       spin_lock_bh(&lock_a, later);
     }},
    {"lock order cycle", take_in_a_cycle},
    {"lock released by a context that does not hold it", release_anothers_lock},
    {"lock held at the end of softirq context", leave_softirq_with_a_lock},
    {"lock taken in softirq context and elsewhere with bottom halves on",
     use_in_softirq_and_outside},
    {"sleeping in softirq context",
     [] {
       hosted::enter_softirq(earlier);
       mutex_lock(&sleeping, later);
     }},
    {"sleeping with a spinlock held",
     [] {
       spin_lock_bh(&lock_a, earlier);
       static_cast<void>(kmalloc(8, GFP_KERNEL, later));
     }},
    {"sleeping with a spinlock held",
     [] {
       spin_lock_bh(&lock_a, earlier);
       static_cast<void>(alloc_skb(8, GFP_KERNEL, later));
     }},
    {"sleeping in softirq context",
     [] {
       hosted::enter_softirq(earlier);
       synchronize_rcu(later);
     }},
    {"sleeping inside an RCU read side",
     [] {
       rcu_read_lock(earlier);
       synchronize_rcu(later);
     }},
    {"sleeping inside an RCU read side",
     [] {
       rcu_read_lock(earlier);
       rcu_barrier(later);
     }},
    {"RCU read side left that was not entered",
     [] {
       rcu_read_lock(earlier);
       rcu_read_unlock();
       rcu_read_unlock(later);
     }},
    {"not inside an RCU read side", [] { checked_rcu_held(later); }, true, false},
    {"buffer freed twice", free_twice},
    {"buffer used after it was freed", use_after_free},
    {"buffer without room", [] { skb_push(alloc_skb(8, GFP_ATOMIC), 1, later); }, true, false},
    {"connection reference dropped below zero", drop_below_zero, true, false},
    {"lock order cycle", drop_under_a_lock_that_the_end_takes},
    {"route reference dropped below zero", drop_route_below_zero, true, false},
    {"waiting for a timer in softirq context", wait_for_a_timer_in_softirq},
    {"memory freed with a lock in it held", free_memory_with_a_held_lock, false, true},
};

TEST(CheckedDeathTest, EachFaultIsNamedWithBothPlaces) {
  if (!kernel_checked) GTEST_SKIP() << "not a checked build";
  for (const fault_row& row : rows) {
    std::string expected = std::string("tarvelo kernel: ") + row.message;
    if (row.names_later) expected += " at later.cpp:22";
    if (row.names_earlier) expected += " earlier earlier.cpp:11";
    EXPECT_DEATH(row.commit(), expected);
  }
}

TEST(CheckedDeathTest, AWriteToAFreedBufferIsFoundWhenItsMemoryIsReused) {
  if (!kernel_checked) GTEST_SKIP() << "not a checked build";
#ifndef __SANITIZE_ADDRESS__
  EXPECT_DEATH(
      {
        sk_buff* skb = alloc_skb(64, GFP_ATOMIC);
        u8* data = skb->data;
        kfree_skb(skb, earlier);
        data[5] = 1;
        for (int i = 0; i < 2000; ++i)
          kfree_skb(alloc_skb(64, GFP_ATOMIC));
      },
      "buffer written after it was freed earlier earlier.cpp:11");
#endif
}

TEST(Checked, WhatIsAllowedIsNotFound) {
  // The same lock order from two places, a lock forgotten and used in another order.
  for (int i = 0; i < 2; ++i) {
    spin_lock_bh(&lock_b);
    spin_lock(&lock_c);
    spin_unlock(&lock_c);
    spin_unlock_bh(&lock_b);
  }
  if constexpr (kernel_checked) checked_lock_forget(&lock_c, code_place::here());
  spin_lock_bh(&lock_c);
  spin_lock_bh(&lock_b);
  spin_unlock_bh(&lock_c);
  spin_unlock_bh(&lock_b);
  // A lock taken before a softirq scope outlives it.
  spin_lock_bh(&lock_a);
  {
    const hosted::softirq_scope softirq;
    const hosted::softirq_scope nested;
    rcu_read_lock();
    rcu_read_unlock();
    static_cast<void>(kfree(kmalloc(8, GFP_ATOMIC)));
  }
  spin_unlock_bh(&lock_a);
  mutex_lock(&sleeping);
  kfree(kmalloc(8, GFP_KERNEL));
  mutex_unlock(&sleeping);
  synchronize_rcu();
}

}  // namespace
