// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/route.h"

#include <gtest/gtest.h>

#include <map>

#include "kernel/context.h"
#include "kernel/errno.h"
#include "kernel/fault.h"
#include "kernel/prefix_table.h"
#include "kernel/wire/ip.h"
#include "tests/kernel/small_random.h"

namespace {

u32 ip(u32 a, u32 b, u32 c, u32 d) {
  return wire::htonl(a << 24 | b << 16 | c << 8 | d);
}

class Routes : public testing::Test {
 protected:
  Routes() : before_(fault::now()) {
    lan_ = alloc_netdev("lan0", ARPHRD_ETHER);
    wan_ = alloc_netdev("wan0", ARPHRD_ETHER);
  }
  ~Routes() override {
    ip_route_flush(nullptr);
    rcu_barrier();
    free_netdev(lan_);
    free_netdev(wan_);
    EXPECT_EQ(fault::now(), before_);
  }

  static rtable* output(u32 daddr) {
    const flowi4 flow{0, daddr, 0};
    rtable* rt = ip_route_output_flow(&flow);
    if (rt != nullptr) dst_release(&rt->dst);
    return rt;
  }

  fault::outstanding before_;
  net_device* lan_;
  net_device* wan_;
};

TEST_F(Routes, LongestPrefixWins) {
  EXPECT_EQ(output(ip(8, 8, 8, 8)), nullptr);
  ASSERT_EQ(ip_route_add(ip(0, 0, 0, 0), 0, RTN_UNICAST, ip(203, 0, 113, 1), wan_), 0);
  ASSERT_EQ(ip_route_add(ip(192, 168, 0, 0), 16, RTN_UNREACHABLE, 0, nullptr), 0);
  ASSERT_EQ(ip_route_add(ip(192, 168, 1, 0), 24, RTN_UNICAST, 0, lan_), 0);
  ASSERT_EQ(ip_route_add(ip(192, 168, 1, 1), 32, RTN_LOCAL, 0, lan_), 0);
  const struct {
    u32 address;
    u8 prefix_length;
  } rows[] = {{ip(8, 8, 8, 8), 0},
              {ip(192, 168, 2, 1), 16},
              {ip(192, 168, 1, 2), 24},
              {ip(192, 168, 1, 1), 32},
              {ip(192, 169, 0, 1), 0}};
  for (const auto& row : rows) {
    const rtable* rt = output(row.address);
    ASSERT_NE(rt, nullptr);
    EXPECT_EQ(rt->prefix_length, row.prefix_length);
  }
  EXPECT_EQ(rt_next_hop(output(ip(8, 8, 8, 8))), ip(203, 0, 113, 1));
  ip_route_flush(lan_);
  EXPECT_EQ(output(ip(192, 168, 1, 1))->prefix_length, 16);
}

TEST_F(Routes, RefusesWhatCannotBe) {
  EXPECT_EQ(ip_route_add(ip(10, 0, 0, 1), 24, RTN_UNICAST, 0, lan_), -EINVAL);
  EXPECT_EQ(ip_route_add(ip(10, 0, 0, 0), 33, RTN_UNICAST, 0, lan_), -EINVAL);
  EXPECT_EQ(ip_route_add(ip(10, 0, 0, 0), 24, RTN_UNICAST, 0, lan_), 0);
  EXPECT_EQ(ip_route_add(ip(10, 0, 0, 0), 24, RTN_UNICAST, 0, wan_), -EEXIST);
  EXPECT_EQ(ip_route_del(ip(10, 0, 0, 0), 25), -ESRCH);
  EXPECT_EQ(ip_route_del(ip(10, 0, 0, 0), 24), 0);
  EXPECT_EQ(ip_route_del(ip(10, 0, 0, 0), 24), -ESRCH);
}

TEST_F(Routes, ABufferKeepsItsRoute) {
  ASSERT_EQ(ip_route_add(ip(10, 0, 0, 0), 24, RTN_UNICAST, 0, lan_), 0);
  sk_buff* skb = alloc_skb(64, GFP_ATOMIC);
  {
    const hosted::softirq_scope softirq;
    ASSERT_EQ(ip_route_input_noref(skb, ip(10, 0, 0, 5), 0, 0, lan_), 0);
    EXPECT_TRUE(skb_dst_is_noref(skb));
    EXPECT_EQ(skb_dst(skb)->input, ip_forward);
    skb_dst_force(skb);
    EXPECT_FALSE(skb_dst_is_noref(skb));
  }
  ip_route_flush(nullptr);
  rcu_barrier();
  EXPECT_EQ(skb_dst(skb)->dev, lan_) << "the reference keeps it";
  kfree_skb(skb);
}

TEST_F(Routes, EveryFailedAllocationLeavesTheTableAsItWas) {
  ASSERT_EQ(ip_route_add(ip(10, 0, 0, 0), 24, RTN_UNICAST, 0, lan_), 0);
  for (u32 n = 1; n <= 3; ++n) {
    fault::fail_allocation(n);
    EXPECT_EQ(ip_route_add(ip(10, 0, 1, 0), 24, RTN_UNICAST, 0, wan_), -ENOMEM) << n;
    EXPECT_EQ(output(ip(10, 0, 1, 1)), nullptr);
  }
  fault::fail_allocation(0);
  EXPECT_EQ(output(ip(10, 0, 0, 1))->dst.dev, lan_);
}

TEST_F(Routes, HeaderChecksum) {
  // The example of RFC 1071's usual worked header.
  u8 header[] = {0x45, 0,    0,    0x73, 0, 0, 0x40, 0,    0x40, 0x11,
                 0xff, 0xff, 0xc0, 0xa8, 0, 1, 0xc0, 0xa8, 0,    0xc7};
  ip_send_check(header);
  EXPECT_EQ(header[10], 0xb8);
  EXPECT_EQ(header[11], 0x61);
}

/// The trie against a plain list, for both widths of addresses.
template <unsigned Bytes>
void compare_with_list() {
  using table_type = hosted::prefix_table<Bytes, const unsigned>;
  using key = typename table_type::key;
  table_type table;
  struct entry {
    key prefix;
    unsigned length;
  };
  std::map<unsigned, entry> model;
  const unsigned values[200] = {};
  small_random random(3);
  const auto random_key = [&](unsigned length) {
    key k{};
    // Few distinct bytes, so that prefixes share a lot.
    for (u8& b : k.bytes)
      b = random() % 2 != 0 ? 0xA5 : 0xA4;
    for (unsigned i = length; i < Bytes * 8; ++i) {
      k.bytes[i / 8] = static_cast<u8>(k.bytes[i / 8] & ~(0x80 >> i % 8));
    }
    return k;
  };
  const auto covers = [](const entry& e, const key& k) {
    for (unsigned i = 0; i < e.length; ++i) {
      if ((e.prefix.bytes[i / 8] ^ k.bytes[i / 8]) & (0x80 >> i % 8)) return false;
    }
    return true;
  };
  for (int round = 0; round < 3000; ++round) {
    const unsigned id = random() % 200;
    if (const auto found = model.find(id); found != model.end()) {
      EXPECT_EQ(table.remove(found->second.prefix, found->second.length), &values[id]);
      model.erase(found);
    } else {
      const unsigned length = random() % (Bytes * 8 + 1);
      const entry e{random_key(length), length};
      if (table.insert(e.prefix, length, &values[id]) == 0) model[id] = e;
    }
    const key wanted = random_key(Bytes * 8);
    const unsigned* best = nullptr;
    unsigned best_length = 0;
    for (const auto& [n, e] : model) {
      if (covers(e, wanted) && (best == nullptr || e.length > best_length)) {
        best = &values[n];
        best_length = e.length;
      }
    }
    ASSERT_EQ(table.find(wanted), best) << round;
  }
  for (const auto& [n, e] : model)
    EXPECT_EQ(table.remove(e.prefix, e.length), &values[n]);
  EXPECT_EQ(table.find(random_key(Bytes * 8)), nullptr);
}

TEST(PrefixTable, AgreesWithAPlainList) {
  const auto before = fault::now();
  compare_with_list<4>();
  compare_with_list<16>();
  rcu_barrier();
  EXPECT_EQ(fault::now(), before) << "no node is left behind";
}

}  // namespace
