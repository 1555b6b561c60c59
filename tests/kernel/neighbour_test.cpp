// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/neighbour.h"

#include <gtest/gtest.h>

#include <cstring>

#include "kernel/fault.h"
#include "kernel/jiffies.h"
#include "kernel/skbuff.h"

namespace {

const u8 address[] = {192, 168, 1, 2};
const u8 other_address[] = {192, 168, 1, 3};
const u8 mac[] = {2, 0, 0, 0, 1, 2};
const u8 other_mac[] = {2, 0, 0, 0, 1, 9};

class Neighbours : public testing::Test {
 protected:
  Neighbours() : before_(fault::now()) {
    dev_ = alloc_netdev("lan0", ARPHRD_ETHER);
    const u8 own[] = {2, 0, 0, 0, 1, 1};
    std::memcpy(dev_->dev_addr, own, sizeof own);
    neigh_table_limit(&arp_tbl, 1024);
  }
  ~Neighbours() override {
    neigh_flush_dev(&arp_tbl, nullptr);
    neigh_flush_dev(&nd_tbl, nullptr);
    rcu_barrier();
    free_netdev(dev_);
    EXPECT_EQ(fault::now(), before_);
  }

  fault::outstanding before_;
  net_device* dev_;
};

TEST_F(Neighbours, ThereIsOneEntryForAKeyAndDevice) {
  neighbour* made = neigh_create(&arp_tbl, address, dev_);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(neigh_create(&arp_tbl, address, dev_), made);
  EXPECT_EQ(neigh_lookup(&arp_tbl, address, dev_), made);
  EXPECT_EQ(neigh_lookup(&arp_tbl, other_address, dev_), nullptr);
  neigh_release(made);
  neigh_release(made);
  neigh_remove(made);
  EXPECT_EQ(neigh_lookup(&arp_tbl, address, dev_), nullptr);
  neigh_remove(made);  // once more does nothing
  EXPECT_EQ(atomic_read(&made->refcnt), 1);
  neigh_release(made);
}

TEST_F(Neighbours, TheCachedHeaderFollowsStateAndAddress) {
  const u8 v6[16] = {0xfe, 0x80};
  const struct {
    neigh_table* table;
    const u8* key;
    u8 type[2];
  } rows[] = {{&arp_tbl, address, {0x08, 0x00}}, {&nd_tbl, v6, {0x86, 0xDD}}};
  for (const auto& row : rows) {
    neighbour* n = neigh_create(row.table, row.key, dev_);
    u8 header[14];
    EXPECT_FALSE(neigh_hh_copy(n, header));
    EXPECT_FALSE(neigh_update(n, mac, NUD_REACHABLE)) << "it was not valid before";
    ASSERT_TRUE(neigh_hh_copy(n, header));
    EXPECT_EQ(std::memcmp(header, mac, 6), 0);
    EXPECT_EQ(std::memcmp(header + 6, dev_->dev_addr, 6), 0);
    EXPECT_EQ(std::memcmp(header + 12, row.type, 2), 0);
    EXPECT_FALSE(neigh_update(n, mac, NUD_STALE)) << "the same address";
    EXPECT_TRUE(neigh_update(n, other_mac, NUD_REACHABLE));
    ASSERT_TRUE(neigh_hh_copy(n, header));
    EXPECT_EQ(std::memcmp(header, other_mac, 6), 0);
    EXPECT_FALSE(neigh_update(n, nullptr, NUD_FAILED));
    EXPECT_FALSE(neigh_hh_copy(n, header));
    neigh_release(n);
  }
}

TEST_F(Neighbours, RemembersWhenItChangedAndWhenItWasProved) {
  kernel_clock::start_at(1000);
  neighbour* n = neigh_create(&arp_tbl, address, dev_);
  neigh_update(n, mac, NUD_REACHABLE);
  kernel_clock::advance_to(2000);
  neigh_update(n, nullptr, NUD_STALE);
  EXPECT_EQ(n->updated, 2000U);
  EXPECT_EQ(n->confirmed, 1000U);
  kernel_clock::advance_to(3000);
  neigh_update(n, nullptr, NUD_STALE);
  EXPECT_EQ(n->updated, 2000U) << "no change";
  neigh_release(n);
}

TEST_F(Neighbours, TheTableIsBounded) {
  neigh_table_limit(&arp_tbl, 1);
  neighbour* n = neigh_create(&arp_tbl, address, dev_);
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(neigh_create(&arp_tbl, other_address, dev_), nullptr);
  neigh_remove(n);
  neigh_release(n);
  neighbour* after = neigh_create(&arp_tbl, other_address, dev_);
  ASSERT_NE(after, nullptr);
  neigh_release(after);
}

TEST_F(Neighbours, WhatWaitsGoesWithTheEntry) {
  neighbour* n = neigh_create(&arp_tbl, address, dev_);
  n->queue_head = alloc_skb(64, GFP_ATOMIC);
  n->queue_head->next = n->queue_tail = alloc_skb(64, GFP_ATOMIC);
  neigh_release(n);
  // Removing while walking is allowed; the fixture finds the buffers if they leak.
  int visited = 0;
  neigh_for_each(
      &arp_tbl,
      [](neighbour* seen, void* count) {
        ++*static_cast<int*>(count);
        neigh_remove(seen);
      },
      &visited);
  EXPECT_EQ(visited, 1);
}

}  // namespace
