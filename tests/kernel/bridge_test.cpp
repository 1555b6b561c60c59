// SPDX-License-Identifier: GPL-2.0-only
// Bridges, their ports and the forwarding database.
#include <array>
#include <atomic>
#include <set>
#include <thread>

#include "kernel/errno.h"
#include "kernel/if_bridge.h"
#include "tests/support/fake_device.h"
#include "tests/support/kernel_fixture.h"

namespace {

using tarvelo::test::fake_device;
using tarvelo::test::in_softirq;

constexpr u32 limit = 16;

using mac = std::array<u8, wire::mac_length>;

mac host(u32 n) {
  return {0x02,
          0x10,
          static_cast<u8>(n >> 24),
          static_cast<u8>(n >> 16),
          static_cast<u8>(n >> 8),
          static_cast<u8>(n)};
}

class bridge_test : public tarvelo::test::kernel_test {
 protected:
  bridge_test() {
    br = br_alloc(br0, limit);
    one = br_port_add(br, lan0);
    two = br_port_add(br, lan1);
    br_port_set_state(one, BR_STATE_FORWARDING);
    br_port_set_state(two, BR_STATE_LEARNING);
  }
  ~bridge_test() override { br_free(br); }

  br_fdb_outcome sees(net_bridge_port* port, const mac& from) {
    return in_softirq([&] { return br_fdb_update(port, from.data()).outcome; });
  }

  /// The port that the database gives; null when it does not know the address.
  net_bridge_port* place_of(const mac& address) {
    return in_softirq([&] {
      const net_bridge_fdb_entry* entry = br_fdb_find(br, address.data());
      return entry != nullptr ? rcu_dereference(entry->dst) : nullptr;
    });
  }

  fake_device br0{"br0"};
  fake_device lan0{"lan0"};
  fake_device lan1{"lan1"};
  net_bridge* br;
  net_bridge_port* one;
  net_bridge_port* two;
};

TEST_F(bridge_test, knows_its_devices) {
  EXPECT_NE(br0->priv_flags & IFF_EBRIDGE, 0U);
  EXPECT_EQ(br->dev, br0.get());
  in_softirq([&] {
    EXPECT_EQ(br_port_find(br, lan0), one);
    EXPECT_EQ(br_port_find(br, lan1), two);
    EXPECT_EQ(br_port_find(br, br0), nullptr);
  });
  const s32 held = atomic_read(&lan0->refcnt);
  br_port_del(one);
  in_softirq([&] {
    EXPECT_EQ(br_port_find(br, lan0), nullptr);
    EXPECT_EQ(br_port_find(br, lan1), two);
  });
  rcu_barrier();
  EXPECT_EQ(atomic_read(&lan0->refcnt), held - 1);
}

TEST_F(bridge_test, learns_refreshes_and_moves_hosts) {
  EXPECT_EQ(place_of(host(1)), nullptr);
  EXPECT_EQ(sees(one, host(1)), br_fdb_outcome::learnt);
  EXPECT_EQ(place_of(host(1)), one);
  EXPECT_EQ(place_of(host(2)), nullptr);

  pass(500);
  EXPECT_EQ(sees(one, host(1)), br_fdb_outcome::refreshed);
  in_softirq([&] { EXPECT_EQ(br_fdb_find(br, host(1).data())->updated, jiffies); });
  EXPECT_EQ(sees(two, host(1)), br_fdb_outcome::moved);
  EXPECT_EQ(place_of(host(1)), two);
  EXPECT_EQ(br->fdb_count, 1U) << "a move made a second entry";

  in_softirq([&] {
    const net_bridge_fdb_entry* gone = br_fdb_delete(br, host(1).data());
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(gone->dst, two) << "what is to be reported of it";
    EXPECT_EQ(br_fdb_delete(br, host(1).data()), nullptr);
  });
  EXPECT_EQ(place_of(host(1)), nullptr);
  EXPECT_EQ(br->fdb_count, 0U);
}

TEST_F(bridge_test, learns_only_behind_ports_in_a_learning_state) {
  struct row {
    u8 state;
    br_fdb_outcome outcome;
  };
  const row rows[] = {
      {BR_STATE_DISABLED, br_fdb_outcome::refused},  {BR_STATE_LISTENING, br_fdb_outcome::refused},
      {BR_STATE_BLOCKING, br_fdb_outcome::refused},  {BR_STATE_LEARNING, br_fdb_outcome::learnt},
      {BR_STATE_FORWARDING, br_fdb_outcome::learnt},
  };
  for (const row& r : rows) {
    br_port_set_state(one, r.state);
    EXPECT_EQ(sees(one, host(r.state)), r.outcome) << static_cast<int>(r.state);
  }
  br_port_set_state(two, BR_STATE_BLOCKING);
  EXPECT_EQ(sees(two, host(BR_STATE_FORWARDING)), br_fdb_outcome::refused);
  EXPECT_EQ(place_of(host(BR_STATE_FORWARDING)), one) << "moved behind a blocked port";
}

TEST_F(bridge_test, an_address_of_its_own_neither_moves_nor_ages) {
  ASSERT_EQ(br_fdb_insert_local(br, one, host(7).data()), 0);
  ASSERT_EQ(br_fdb_insert_local(br, nullptr, host(8).data()), 0);
  EXPECT_EQ(br_fdb_insert_local(br, two, host(7).data()), -EEXIST);
  EXPECT_EQ(sees(two, host(7)), br_fdb_outcome::own);
  EXPECT_EQ(sees(two, host(8)), br_fdb_outcome::own);
  EXPECT_EQ(place_of(host(7)), one);
  pass(10'000);
  EXPECT_EQ(br_fdb_age(br, 1000, nullptr, nullptr), 0U);
  in_softirq([&] { EXPECT_TRUE(br_fdb_find(br, host(8).data())->is_local); });

  EXPECT_EQ(sees(one, host(9)), br_fdb_outcome::learnt);
  EXPECT_EQ(br_fdb_insert_local(br, two, host(9).data()), -EEXIST);
}

/// A judge that remembers whom it was shown and keeps one of them.
struct recording_judge {
  std::set<mac> shown;
  mac kept;

  static br_fdb_fate judge(net_bridge_fdb_entry* entry, void* context) {
    auto* self = static_cast<recording_judge*>(context);
    mac address;
    std::copy_n(entry->addr, address.size(), address.begin());
    self->shown.insert(address);
    return address == self->kept ? br_fdb_fate::keep : br_fdb_fate::remove;
  }
};

TEST_F(bridge_test, hosts_age_across_the_wrap_of_the_clock) {
  constexpr u32 max_age = 1000;
  // The fixture's clock starts 256 milliseconds before its wrap.
  sees(one, host(1));
  sees(one, host(2));
  pass(max_age - 1);
  sees(one, host(3));
  recording_judge judge{.shown = {}, .kept = host(2)};
  EXPECT_EQ(br_fdb_age(br, max_age, recording_judge::judge, &judge), 0U);
  EXPECT_TRUE(judge.shown.empty()) << "a host was old a millisecond early";

  pass(1);
  EXPECT_EQ(br_fdb_age(br, max_age, recording_judge::judge, &judge), 1U);
  EXPECT_EQ(judge.shown, (std::set<mac>{host(1), host(2)}));
  EXPECT_EQ(place_of(host(1)), nullptr);
  EXPECT_EQ(place_of(host(2)), one) << "removed against the judge";
  EXPECT_EQ(place_of(host(3)), one);
}

TEST_F(bridge_test, a_port_takes_its_hosts_along) {
  for (u32 n = 0; n < 8; ++n)
    sees(n % 2 == 0 ? one : two, host(n));
  ASSERT_EQ(br_fdb_insert_local(br, one, host(100).data()), 0);
  br_port_del(one);
  for (u32 n = 0; n < 8; ++n)
    EXPECT_EQ(place_of(host(n)), n % 2 == 0 ? nullptr : two) << n;
  in_softirq([&] { EXPECT_EQ(br_fdb_find(br, host(100).data()), nullptr); });
  EXPECT_EQ(br->fdb_count, 4U);
  EXPECT_EQ(br_fdb_sweep(br, nullptr, nullptr), 4U);
  EXPECT_EQ(br->fdb_count, 0U);
}

TEST_F(bridge_test, invented_senders_fill_it_to_its_limit_and_no_further) {
  for (u32 n = 0; n < limit; ++n)
    ASSERT_EQ(sees(one, host(n)), br_fdb_outcome::learnt) << n;
  EXPECT_EQ(sees(one, host(limit)), br_fdb_outcome::refused);
  EXPECT_EQ(sees(two, host(0)), br_fdb_outcome::moved) << "known hosts still move";
  EXPECT_EQ(br_fdb_insert_local(br, one, host(200).data()), 0) << "own addresses always fit";
  in_softirq([&] { br_fdb_delete(br, host(3).data()); });
  EXPECT_EQ(sees(one, host(limit)), br_fdb_outcome::learnt);
}

TEST_F(bridge_test, no_bucket_grows_without_end) {
  br->fdb_limit = br_fdb_buckets * br_fdb_bucket_limit;
  u32 learnt = 0;
  for (u32 n = 0; n < 2 * br->fdb_limit; ++n) {
    if (sees(one, host(n)) == br_fdb_outcome::learnt) ++learnt;
  }
  for (const net_bridge_fdb_entry* entry : br->hash) {
    u32 length = 0;
    for (; entry != nullptr; entry = entry->next)
      ++length;
    ASSERT_LE(length, br_fdb_bucket_limit);
  }
  EXPECT_GT(learnt, br->fdb_limit * 9 / 10) << "neighbouring addresses crowd few buckets";
}

TEST_F(bridge_test, without_memory_nothing_is_learnt) {
  fault::fail_allocation(1);
  EXPECT_EQ(sees(one, host(1)), br_fdb_outcome::refused);
  fault::fail_allocation(1);
  EXPECT_EQ(br_fdb_insert_local(br, one, host(1).data()), -ENOMEM);
  EXPECT_EQ(br->fdb_count, 0U);
  EXPECT_EQ(sees(one, host(1)), br_fdb_outcome::learnt);

  const s32 held = atomic_read(&lan0->refcnt);
  fault::fail_allocation(1);
  EXPECT_EQ(br_port_add(br, lan0), nullptr);
  fault::fail_allocation(1);
  EXPECT_EQ(br_alloc(lan0, limit), nullptr);
  EXPECT_EQ(atomic_read(&lan0->refcnt), held);
}

TEST_F(bridge_test, readers_and_writers_do_not_meet) {
  constexpr u32 hosts = 8;
  constexpr u32 rounds = 2000;
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      for (u32 n = 0; n < hosts; ++n) {
        const net_bridge_port* at = place_of(host(n));
        if (at == nullptr) continue;
        EXPECT_TRUE(at->dev == lan0.get() || at->dev == lan1.get());
      }
    }
  });
  std::thread mover([&] {
    for (u32 i = 0; i < rounds; ++i)
      sees(i % 3 == 0 ? two : one, host(i % hosts));
  });
  for (u32 i = 0; i < rounds; ++i) {
    in_softirq([&] { br_fdb_delete(br, host(i * 5 % hosts).data()); });
    if (i % 64 == 0) br_fdb_sweep(br, nullptr, nullptr);
  }
  mover.join();
  stop = true;
  reader.join();
  u32 left = 0;
  for (const net_bridge_fdb_entry* entry : br->hash)
    for (; entry != nullptr; entry = entry->next)
      ++left;
  EXPECT_EQ(br->fdb_count, left);
}

TEST_F(bridge_test, the_checked_kernel_wants_a_read_side) {
  if (!kernel_checked) GTEST_SKIP() << "only in the checked build";
  rcu_barrier();  // no lock of another thread may be held in the child
  EXPECT_DEATH(static_cast<void>(br_fdb_find(br, host(1).data())), "bridge_fdb.cpp");
}

}  // namespace
