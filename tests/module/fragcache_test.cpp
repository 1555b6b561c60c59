// SPDX-License-Identifier: GPL-2.0-only
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "module/core/init.h"
#include "module/fragcache/ipv4.h"
#include "module/fragcache/ipv6.h"
#include "module/fragcache/negative.h"
#include "tests/support/kernel_fixture.h"
#include "tests/support/net_text.h"

namespace tarvelo {
namespace {

using test::in_softirq;
using test::ip4;
using test::ip6;
using texts = std::vector<std::string>;

constexpr u8 udp = 17;

/// What a set-up logs when its first, its second or a later allocation fails.
struct failure_texts {
  texts first, second, later;
};

// Each describes one cache for the tests that hold for all: datagram n, its key and its ports.
struct ipv4_cache {
  using entry = fragEntry;
  static constexpr s32 size = udp_fragment_entries;
  static inline auto& table = udp_cache_table;
  static inline auto& free_list = udp_cache_list_free;
  static inline const texts when_full = {};
  static inline const failure_texts when_short = {{"MALLOC Failed! (Udp_FragCache_Table) \n"},
                                                  {"MALLOC Failed! (Udp_FragCache_Table List) \n"},
                                                  {"MALLOC Failed! (Path Table Entry) \n"}};

  static int set_up() { return udp_fragCache_init(size); }
  static void tear_down() { udp_fragCache_free(size); }
  static int add(u16 n) { return add_fragEntry(n, 1, 2, 3, 4, udp); }
  static entry* find(u16 n) { return find_fragEntry(n, 1, 3, udp); }
  static void expire(entry* e) { cache_timeout(reinterpret_cast<unsigned long>(e)); }
};

struct ipv6_cache {
  using entry = fragentry_v6;
  static constexpr s32 size = udp_fragment_v6_entries;
  static inline auto& table = vok_udp_cache_table_v6;
  static inline auto& free_list = vok_udp_cache_list_free_v6;
  static inline const texts when_full = {};
  static inline const failure_texts when_short = {};

  static int set_up() { return vok_udp_fragCache_v6_init(size); }
  static void tear_down() { vok_udp_fragcache_free_v6(size); }
  static int add(u16 n) { return vok_add_fragentry_v6(n, {}, 2, {}, 4, udp); }
  static entry* find(u16 n) { return vok_find_fragentry_v6(n, {}, {}, udp); }
  static void expire(entry* e) { vok_cache_timeout_v6(reinterpret_cast<unsigned long>(e)); }
};

struct negative_cache {
  using entry = negative_fragEntry;
  static constexpr s32 size = negative_fragment_entries;
  static inline auto& table = negative_cache_table;
  static inline auto& free_list = negative_cache_list_free;
  static inline const texts when_full = {"\x1b[;32madd negative frag faild\n\x1b[0m"};
  static inline const failure_texts when_short = {
      {"MALLOC Failed! (Udp_FragCache_Table) \n"},
      {"MALLOC Failed! (Negative FragCache Table Entry) \n"},
      {"MALLOC Failed! (Negative FragCache Table Entry) \n"}};

  static int set_up() { return negative_fragCache_init(); }
  static void tear_down() { negative_fragCache_free(); }
  static int add(u16 n) { return add_negative_fragEntry(n, 1, 3, udp); }
  static entry* find(u16 n) { return find_negative_fragEntry(n, 1, 3, udp); }
  static void expire(entry* e) { negative_cache_timeout(reinterpret_cast<unsigned long>(e)); }
};

template <auto Link, typename Entry>
s32 length(const tail_queue<Entry>& queue) {
  s32 count = 0;
  for (Entry* e = queue.first; e != nullptr; e = (e->*Link).next)
    ++count;
  return count;
}

template <typename Cache>
s32 free_entries() {
  return length<&Cache::entry::free_link>(Cache::free_list);
}

template <typename Cache>
std::vector<s32> used_buckets() {
  std::vector<s32> used;
  for (s32 bucket = 0; bucket < Cache::size; ++bucket) {
    if (Cache::table->buckets[bucket].first != nullptr) used.push_back(bucket);
  }
  return used;
}

/// A cache that is set up; the fixture's destructor sees that all of it has been given back.
template <typename Cache>
struct live_cache {
  live_cache() { EXPECT_EQ(Cache::set_up(), 1); }
  ~live_cache() {
    Cache::tear_down();
    EXPECT_EQ(Cache::table, nullptr);
  }
  live_cache(const live_cache&) = delete;
  live_cache& operator=(const live_cache&) = delete;
};

template <typename Cache>
class every_fragment_cache : public test::kernel_test {
 protected:
  static int add(u16 n) {
    return in_softirq([n] { return Cache::add(n); });
  }
  static typename Cache::entry* find(u16 n) {
    return in_softirq([n] { return Cache::find(n); });
  }
};

using all_caches = testing::Types<ipv4_cache, ipv6_cache, negative_cache>;
TYPED_TEST_SUITE(every_fragment_cache, all_caches);

TYPED_TEST(every_fragment_cache, RefusesWhenFullAndExpiresInOrder) {
  const live_cache<TypeParam> cache;
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size);
  EXPECT_TRUE(used_buckets<TypeParam>().empty());
  auto* first_free = TypeParam::free_list.first;

  for (u16 n = 0; n < TypeParam::size; ++n) {
    ASSERT_EQ(this->add(n), 1);
    if (n == 0) this->pass(10);
  }
  EXPECT_EQ(free_entries<TypeParam>(), 0);
  EXPECT_EQ(this->log.take_text(), texts{});
  EXPECT_EQ(this->add(0xFFFF), 0);
  EXPECT_EQ(this->log.take_text(), TypeParam::when_full);
  EXPECT_EQ(this->find(0xFFFF), nullptr);

  this->pass(fragment_lifetime - 11);
  EXPECT_EQ(this->find(0), first_free);
  this->pass(1);
  EXPECT_EQ(this->find(0), nullptr);
  EXPECT_EQ(free_entries<TypeParam>(), 1);
  EXPECT_EQ(this->add(0xFFFF), 1);
  EXPECT_EQ(this->find(0xFFFF), first_free);

  this->pass(10);
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size - 1);
  EXPECT_EQ(used_buckets<TypeParam>().size(), 1U);
}

// The timer's function may have been waiting for the lock while its entry was returned and reused.
TYPED_TEST(every_fragment_cache, LateTimerDoesNotEndTheNextUse) {
  const live_cache<TypeParam> cache;
  ASSERT_EQ(this->add(1), 1);
  auto* entry = this->find(1);
  this->pass(fragment_lifetime);
  in_softirq([entry] { TypeParam::expire(entry); });
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size);

  for (u16 n = 2; n < 2 + TypeParam::size; ++n)
    ASSERT_EQ(this->add(n), 1);
  ASSERT_NE(entry->in_use, 0);
  in_softirq([entry] { TypeParam::expire(entry); });
  EXPECT_EQ(free_entries<TypeParam>(), 0);

  // A start that comes late brings the timer of the next use forward.
  mod_timer(&entry->timer, jiffies + 1);
  this->pass(1);
  EXPECT_EQ(free_entries<TypeParam>(), 0);
  this->pass(fragment_lifetime - 1);
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size);
}

TYPED_TEST(every_fragment_cache, TearDownStopsEveryTimer) {
  {
    const live_cache<TypeParam> cache;
    for (u16 n = 0; n < TypeParam::size / 2; ++n)
      ASSERT_EQ(this->add(n), 1);
    mod_timer(&TypeParam::free_list.first->timer, jiffies + 5);
  }
  this->pass(2 * fragment_lifetime);
  TypeParam::tear_down();
}

TYPED_TEST(every_fragment_cache, SetUpThatFailsIsTornDown) {
  fault::fail_allocation(0);
  { const live_cache<TypeParam> cache; }
  const u32 allocations = fault::allocations_seen();
  ASSERT_GT(allocations, static_cast<u32>(TypeParam::size));

  for (u32 n = 1; n <= allocations; ++n) {
    fault::fail_allocation(n);
    EXPECT_EQ(TypeParam::set_up(), 0);
    ASSERT_TRUE(fault::fired());
    const failure_texts& all = TypeParam::when_short;
    EXPECT_EQ(this->log.take_text(), n == 1 ? all.first : n == 2 ? all.second : all.later) << n;
    TypeParam::tear_down();
    ASSERT_EQ(TypeParam::table, nullptr);
  }
  const live_cache<TypeParam> cache;
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size);
}

class fragment_cache_test : public test::kernel_test {};

TEST_F(fragment_cache_test, AllThreeComeAndGoWithTheModule) {
  ASSERT_EQ(init_module(), 0);
  EXPECT_EQ(free_entries<ipv4_cache>(), 64);
  EXPECT_EQ(free_entries<negative_cache>(), 64);
  EXPECT_EQ(free_entries<ipv6_cache>(), 500);
  cleanup_module();
  EXPECT_EQ(udp_cache_table, nullptr);
  EXPECT_EQ(negative_cache_table, nullptr);
  EXPECT_EQ(vok_udp_cache_table_v6, nullptr);
}

TEST_F(fragment_cache_test, KeysGoToTheirBuckets) {
  const live_cache<ipv4_cache> ipv4;
  const live_cache<ipv6_cache> ipv6;
  const live_cache<negative_cache> negative;
  const u16 id = wire::htons(0x1234);
  const u32 from = ip4("192.168.1.2");
  const u32 to = ip4("198.51.100.7");
  in_softirq([&] {
    ASSERT_EQ(add_fragEntry(id, from, 1, to, 2, udp), 1);
    ASSERT_EQ(add_negative_fragEntry(id, from, to, udp), 1);
    ASSERT_EQ(
        vok_add_fragentry_v6(wire::htonl(1), ip6("2001:db8::1"), 1, ip6("2001:db8::2"), 2, udp), 1);
  });
  EXPECT_EQ(used_buckets<ipv4_cache>(), std::vector{10});
  EXPECT_EQ(used_buckets<negative_cache>(), std::vector{10});
  EXPECT_EQ(used_buckets<ipv6_cache>(), std::vector{160});
}

TEST_F(fragment_cache_test, Ipv6BucketsStayWithinTheMask) {
  const live_cache<ipv6_cache> cache;
  for (u32 n = 0; n < udp_fragment_v6_entries; ++n) {
    const u32 id = n * 0x9E3779B9;
    ASSERT_EQ(in_softirq([id] { return vok_add_fragentry_v6(id, {}, 1, {}, 2, udp); }), 1);
  }
  const std::vector<s32> used = used_buckets<ipv6_cache>();
  EXPECT_GT(used.size(), 100U);
  for (const s32 bucket : used)
    EXPECT_EQ(bucket & ~(udp_fragment_v6_entries - 1), 0);
}

TEST_F(fragment_cache_test, EveryFieldOfTheKeyCounts) {
  const live_cache<ipv4_cache> ipv4;
  const live_cache<ipv6_cache> ipv6;
  const live_cache<negative_cache> negative;
  // Of differences that cancel in the hash only the comparison can tell.
  const frag_key key = {1, udp, 0x10, 0x20};
  const frag_key others[] = {{2, udp, 0x10, 0x20}, {1, 6, 0x10, 0x20},   {1, udp, 0x11, 0x20},
                             {1, udp, 0x10, 0x21}, {1, udp, 0x20, 0x10}, {2, udp, 0x13, 0x20}};
  const wire::in6_addr a = ip6("2001:db8::1");
  const wire::in6_addr b = ip6("2001:db8::2");
  const frag_key_v6 key_v6 = {1, a, b, udp};
  const frag_key_v6 others_v6[] = {{2, a, b, udp},
                                   {1, a, b, 6},
                                   {1, ip6("2001:db8::3"), b, udp},
                                   {1, a, ip6("2001:db9::2"), udp},
                                   {1, b, a, udp},
                                   {1, ip6("2001:db8::1:0:0:1"), ip6("2001:db8::1:0:0:2"), udp}};
  in_softirq([&] {
    found_frag found;
    found_frag_v6 found_v6;
    ASSERT_TRUE(add_frag(key, 1000, 2000, &found));
    ASSERT_TRUE(vok_add_frag_v6(key_v6, 3000, 0xFFFF, &found_v6));
    ASSERT_EQ(add_negative_fragEntry(key.id, key.saddr, key.daddr, key.proto), 1);

    found = {};
    found_v6 = {};
    ASSERT_TRUE(find_frag(key, &found));
    EXPECT_EQ(found.sport, 1000);
    EXPECT_EQ(found.dport, 2000);
    ASSERT_TRUE(vok_find_frag_v6(key_v6, &found_v6));
    EXPECT_EQ(found_v6.sport, 3000);
    EXPECT_EQ(found_v6.dport, 0xFFFF);
    EXPECT_NE(find_negative_fragEntry(key.id, key.saddr, key.daddr, key.proto), nullptr);

    for (const frag_key& other : others) {
      EXPECT_FALSE(find_frag(other, &found));
      EXPECT_EQ(find_negative_fragEntry(other.id, other.saddr, other.daddr, other.proto), nullptr);
    }
    for (const frag_key_v6& other : others_v6)
      EXPECT_FALSE(vok_find_frag_v6(other, &found_v6));
  });
}

/// The operations of the two caches that entries are returned to early.
struct ipv4_returns : ipv4_cache {
  using key = frag_key;
  using found = found_frag;
  static key key_of(u16 n) { return {n, udp, n * 3U, 5}; }
  static bool find_in(u16 n, found* f) { return find_frag(key_of(n), f); }
  static bool add_to(u16 n, found* f) { return add_frag(key_of(n), n, static_cast<u16>(~n), f); }
  static void give_back(const found& f) { free_cache(f); }
  static void give_back(entry* e) { free_cache(e); }
};

struct ipv6_returns : ipv6_cache {
  using key = frag_key_v6;
  using found = found_frag_v6;
  static key key_of(u16 n) { return {n * 7U, {}, {}, udp}; }
  static bool find_in(u16 n, found* f) { return vok_find_frag_v6(key_of(n), f); }
  static bool add_to(u16 n, found* f) {
    return vok_add_frag_v6(key_of(n), n, static_cast<u16>(~n), f);
  }
  static void give_back(const found& f) { vok_free_cache_v6(f); }
  static void give_back(entry* e) { vok_free_cache_v6(e); }
};

template <typename Cache>
class returned_fragments : public test::kernel_test {
 protected:
  static typename Cache::found add(u16 n) {
    typename Cache::found added;
    EXPECT_TRUE(in_softirq([&] { return Cache::add_to(n, &added); }));
    return added;
  }
  static bool is_there(u16 n) {
    typename Cache::found found;
    return in_softirq([&] { return Cache::find_in(n, &found); });
  }
  template <typename What>
  static void give_back(const What& what) {
    in_softirq([&] { Cache::give_back(what); });
  }
};

using caches_with_returns = testing::Types<ipv4_returns, ipv6_returns>;
TYPED_TEST_SUITE(returned_fragments, caches_with_returns);

TYPED_TEST(returned_fragments, FirstReturnedIsReusedFirst) {
  const live_cache<TypeParam> cache;
  std::vector<typename TypeParam::found> added;
  for (u16 n = 0; n < TypeParam::size; ++n)
    added.push_back(this->add(n));
  this->give_back(added[9]);
  this->give_back(added[4].entry);
  this->give_back(added[9]);
  EXPECT_EQ(free_entries<TypeParam>(), 2);
  EXPECT_FALSE(this->is_there(9));
  EXPECT_FALSE(this->is_there(4));
  EXPECT_EQ(this->add(100).entry, added[9].entry);
  EXPECT_EQ(this->add(101).entry, added[4].entry);
}

TYPED_TEST(returned_fragments, ReturnStopsTheTimerOfItsOwnUseOnly) {
  const live_cache<TypeParam> cache;
  std::vector<typename TypeParam::found> added;
  for (u16 n = 0; n < TypeParam::size; ++n)
    added.push_back(this->add(n));
  this->give_back(added[0]);
  EXPECT_FALSE(timer_pending(&added[0].entry->timer));
  this->pass(fragment_lifetime / 2);
  const auto reused = this->add(1000);
  ASSERT_EQ(reused.entry, added[0].entry);

  this->pass(fragment_lifetime / 2);
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size - 1);
  this->give_back(added[0]);
  EXPECT_TRUE(this->is_there(1000)) << "a return of the earlier use took the later one";
  this->pass(fragment_lifetime / 2);
  EXPECT_FALSE(this->is_there(1000));
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size);
}

TYPED_TEST(returned_fragments, UnlinkingKeepsTheChainTogether) {
  const live_cache<TypeParam> cache;
  const auto first = this->add(5);
  const auto middle = this->add(5);
  const auto last = this->add(5);
  const auto found = [this] {
    typename TypeParam::found found_now = {};
    in_softirq([&] { (void)TypeParam::find_in(5, &found_now); });
    return found_now.entry;
  };
  this->give_back(middle);
  EXPECT_EQ(found(), first.entry);
  this->give_back(first);
  EXPECT_EQ(found(), last.entry);
  const auto appended = this->add(5);
  this->give_back(last);
  EXPECT_EQ(found(), appended.entry);
}

// Packets on several processors against the timers: the ports found always belong to the key, and
// no entry is lost.
TYPED_TEST(returned_fragments, StandsUpToSeveralProcessors) {
  constexpr int rounds = 20000;
  constexpr u16 datagrams = 96;
  const live_cache<TypeParam> cache;
  std::atomic<int> working{2};
  std::atomic<int> wrong_ports{0};
  const auto work = [&](unsigned cpu) {
    hosted::set_processor(cpu);
    u32 random = cpu;
    for (int round = 0; round < rounds; ++round) {
      random = random * 1664525 + 1013904223;
      const auto n = static_cast<u16>((random >> 16) % datagrams);
      in_softirq([&] {
        typename TypeParam::found found;
        if (!TypeParam::find_in(n, &found)) {
          (void)TypeParam::add_to(n, &found);
          return;
        }
        if (found.sport != n || found.dport != static_cast<u16>(~n)) ++wrong_ports;
        if ((random & 1) != 0) TypeParam::give_back(found);
      });
    }
    --working;
  };
  std::thread one(work, 1U);
  std::thread two(work, 2U);
  while (working.load() != 0)
    this->pass(fragment_lifetime / 4);
  one.join();
  two.join();
  EXPECT_EQ(wrong_ports.load(), 0);
  this->pass(fragment_lifetime);
  EXPECT_EQ(free_entries<TypeParam>(), TypeParam::size);
  EXPECT_TRUE(used_buckets<TypeParam>().empty());
}

}  // namespace
}  // namespace tarvelo
