// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kernel/errno.h"
#include "kernel/fault.h"
#include "kernel/nf_conntrack.h"
#include "kernel/printk.h"
#include "kernel/proc_fs.h"
#include "kernel/skbuff.h"
#include "kernel/slab.h"
#include "kernel/uaccess.h"

namespace {

TEST(Memory, EveryKindOfAllocationCanBeMadeToFail) {
  kmem_cache* cache = kmem_cache_create("objects", 32, 0, 0, nullptr);
  const file_operations fops{};
  const struct {
    const char* what;
    bool (*allocate)(kmem_cache*, const file_operations*);
  } rows[] = {
      {"kmalloc",
       [](auto*, auto*) {
         void* p = kmalloc(8, GFP_ATOMIC);
         kfree(p);
         return p != nullptr;
       }},
      {"kzalloc",
       [](auto*, auto*) {
         void* p = kzalloc(8, GFP_KERNEL);
         kfree(p);
         return p != nullptr;
       }},
      {"object",
       [](kmem_cache* c, auto*) {
         void* p = kmem_cache_alloc(c, GFP_ATOMIC);
         kmem_cache_free(c, p);
         return p != nullptr;
       }},
      {"cache",
       [](auto*, auto*) {
         kmem_cache* c = kmem_cache_create("more", 32, 0, 0, nullptr);
         kmem_cache_destroy(c);
         return c != nullptr;
       }},
      {"buffer",
       [](auto*, auto*) {
         sk_buff* skb = alloc_skb(8, GFP_ATOMIC);
         kfree_skb(skb);
         return skb != nullptr;
       }},
      {"directory",
       [](auto*, auto*) {
         const bool made = proc_mkdir("dir", nullptr) != nullptr;
         remove_proc_entry("dir", nullptr);
         return made;
       }},
      {"file",
       [](auto*, const file_operations* f) {
         const bool made = proc_create_data("file", 0644, nullptr, f, nullptr) != nullptr;
         remove_proc_entry("file", nullptr);
         return made;
       }},
      {"connection",
       [](auto*, auto*) {
         nf_conn* ct = nf_conntrack_alloc();
         if (ct != nullptr) nf_conntrack_put(&ct->ct_general);
         return ct != nullptr;
       }},
  };
  const auto before = fault::now();
  for (const auto& row : rows) {
    fault::fail_allocation(1);
    EXPECT_FALSE(row.allocate(cache, &fops)) << row.what;
    EXPECT_TRUE(fault::fired());
    EXPECT_TRUE(row.allocate(cache, &fops)) << row.what << ": only once";
    EXPECT_EQ(fault::allocations_seen(), 2U) << row.what;
  }
  fault::fail_allocation(0);
  rcu_barrier();
  EXPECT_EQ(fault::now(), before);
  kmem_cache_destroy(cache);
}

TEST(Memory, WhatAThreadTakesAnotherMayReturn) {
  const auto before = fault::now();
  std::vector<void*> blocks;
  std::thread([&] {
    for (int i = 0; i < 10; ++i)
      blocks.push_back(kmalloc(16, GFP_KERNEL));
  }).join();
  EXPECT_EQ(fault::now().allocations, before.allocations + 10);
  std::thread([&] {
    for (void* p : blocks)
      kfree(p);
  }).join();
  EXPECT_EQ(fault::now(), before);
}

TEST(Memory, ACacheReportsObjectsThatAreStillOut) {
  const auto before = fault::now();
  kmem_cache* cache =
      kmem_cache_create("leaky", 40, 64, 0, [](void* object) { std::memset(object, 0x11, 40); });
  void* object = kmem_cache_alloc(cache, GFP_ATOMIC);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(object) % 64, 0U);
  EXPECT_EQ(static_cast<u8*>(object)[39], 0x11);
  std::string log;
  klog::set_sink([](void* to, klog::level,
                    const char* text) noexcept { *static_cast<std::string*>(to) += text; },
                 &log);
  kmem_cache_destroy(cache);
  klog::set_sink(nullptr, nullptr);
  EXPECT_EQ(log, "slab cache leaky: destroyed with 1 objects in use\n");
  kmem_cache_free(cache, object);
  kmem_cache_destroy(cache);
  EXPECT_EQ(fault::now(), before);
}

TEST(Memory, CopiesFromTheUserCanFail) {
  char to[4] = "";
  fault::fail_user_copies(true);
  EXPECT_EQ(copy_from_user(to, "abc", 4), 4U);
  fault::fail_user_copies(false);
  EXPECT_EQ(copy_from_user(to, nullptr, 4), 4U);
  EXPECT_EQ(copy_from_user(to, "abc", 4), 0U);
  EXPECT_STREQ(to, "abc");
}

TEST(Buffers, MoveTheirDataWithinTheirRoom) {
  sk_buff* skb = alloc_skb(100, GFP_ATOMIC);
  EXPECT_EQ(skb_tailroom(skb), 100U);
  skb_reserve(skb, 32);
  u8* start = skb_put(skb, 10);
  EXPECT_EQ(skb_push(skb, 32), start - 32);
  EXPECT_EQ(skb->len, 42U);
  EXPECT_EQ(skb_pull(skb, 43), nullptr);
  EXPECT_EQ(skb->len, 42U) << "a pull that fails changes nothing";
  EXPECT_EQ(skb_pull(skb, 40), start + 8);
  skb_trim(skb, 5);
  EXPECT_EQ(skb->len, 2U);
  skb_trim(skb, 1);
  EXPECT_EQ(skb->len, 1U);
  EXPECT_EQ(skb_tailroom(skb), 100U - 40U - 1U);
  kfree_skb(skb);
  kfree_skb(nullptr);
}

TEST(Buffers, AReusedBlockIsANewBuffer) {
  for (const u32 size : {100U, 2048U, 2049U, 65536U}) {
    for (int round = 0; round < 3; ++round) {
      sk_buff* skb = alloc_skb(size, GFP_ATOMIC);
      EXPECT_EQ(skb->end - skb->head, static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(skb->data, skb->head);
      EXPECT_EQ(skb->len | skb->fast_flags | skb->priority | skb->mac_header, 0U);
      EXPECT_EQ(skb->nfct, nullptr);
      std::memset(skb_put(skb, size), 0xFF, size);
      skb->fast_flags = skb->priority = 1;
      kfree_skb(skb);
    }
  }
}

TEST(Buffers, APlainCopyCarriesNoConnection) {
  nf_conn* ct = nf_conntrack_alloc();
  sk_buff* skb = alloc_skb(100, GFP_ATOMIC);
  skb_reserve(skb, 40);
  std::memcpy(skb_put(skb, 3), "abc", 3);
  skb->nfct = &ct->ct_general;
  skb->fast_flags = fast_flag::never_add;
  skb->network_header = 40;
  skb->priority = 5;
  sk_buff* copy = skb_copy_plain(skb, 200, GFP_ATOMIC);
  kfree_skb(skb);
  EXPECT_EQ(skb_headroom(copy), 40U);
  EXPECT_GE(skb_tailroom(copy), 200U);
  EXPECT_EQ(std::memcmp(copy->data, "abc", 3), 0);
  EXPECT_EQ(copy->nfct, nullptr);
  EXPECT_EQ(copy->fast_flags, 0U);
  EXPECT_EQ(skb_network_header(copy), copy->data);
  EXPECT_EQ(copy->priority, 5U);
  kfree_skb(copy);
}

TEST(Connections, TheLastDropEndsThem) {
  rcu_barrier();  // for what the tests before this one have freed
  const auto before = fault::now();
  static int destroyed;
  destroyed = 0;
  nf_ct_destroy = [](nf_conntrack* nfct) {
    ++destroyed;
    nf_conntrack_free(nf_ct_of(nfct));
  };
  nf_conn* ct = nf_conntrack_alloc();
  sk_buff* skb = alloc_skb(64, GFP_ATOMIC);
  nf_conntrack_get(&ct->ct_general);
  skb->nfct = &ct->ct_general;
  nf_conntrack_put(&ct->ct_general);
  EXPECT_EQ(destroyed, 0);
  kfree_skb(skb);
  EXPECT_EQ(destroyed, 1);
  nf_ct_destroy = nullptr;
  rcu_barrier();
  EXPECT_EQ(fault::now(), before);
}

}  // namespace
