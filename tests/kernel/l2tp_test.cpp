// SPDX-License-Identifier: GPL-2.0-only
// The life of L2TP sessions and tunnels, and their sequence numbers.
#include "kernel/l2tp.h"

#include <thread>
#include <vector>

#include "tests/support/kernel_fixture.h"

namespace {

constexpr l2tp_session_config plain = {.session_id = 30, .peer_session_id = 40, .send_seq = false};
constexpr l2tp_session_config numbered = {
    .session_id = 30, .peer_session_id = 40, .send_seq = true};

class l2tp_test : public tarvelo::test::kernel_test {
 protected:
  /// A session whose tunnel goes with it.
  static l2tp_session* make(const l2tp_session_config& config) {
    l2tp_tunnel* tunnel = l2tp_tunnel_alloc(10, 20);
    l2tp_session* session = l2tp_session_alloc(tunnel, &config);
    l2tp_tunnel_put(tunnel);
    return session;
  }
};

TEST_F(l2tp_test, a_session_knows_its_ids_and_header) {
  l2tp_session* session = make(plain);
  EXPECT_EQ(session->tunnel->tunnel_id, 10);
  EXPECT_EQ(session->tunnel->peer_tunnel_id, 20);
  EXPECT_EQ(session->session_id, 30);
  EXPECT_EQ(session->peer_session_id, 40);
  EXPECT_EQ(session->hdr_len, 6);
  EXPECT_EQ(session->send_seq, 0);
  EXPECT_FALSE(l2tp_session_closing(session));
  l2tp_session_close(session);
  EXPECT_EQ(session->state & 1, 1) << "what the fast path looks at";
  l2tp_session_put(session);

  session = make(numbered);
  EXPECT_EQ(session->hdr_len, 10);
  EXPECT_EQ(session->send_seq, 1);
  l2tp_session_put(session);
}

TEST_F(l2tp_test, the_last_drop_frees_after_a_grace_period) {
  const fault::outstanding before = fault::now();
  l2tp_session* session = make(plain);
  EXPECT_EQ(fault::now().allocations, before.allocations + 2);
  ASSERT_TRUE(l2tp_session_get_not_zero(session));
  l2tp_session_put(session);
  EXPECT_FALSE(l2tp_session_closing(session)) << "freed with a reference left";

  rcu_read_lock();
  l2tp_session_put(session);
  EXPECT_FALSE(l2tp_session_get_not_zero(session)) << "revived";
  EXPECT_TRUE(l2tp_session_closing(session));
  EXPECT_EQ(session->tunnel->tunnel_id, 10) << "a reader may still follow the tunnel";
  EXPECT_EQ(fault::now().allocations, before.allocations + 2);
  rcu_read_unlock();
  rcu_barrier();
  EXPECT_EQ(fault::now(), before);
}

TEST_F(l2tp_test, a_user_who_drops_the_count_himself_frees) {
  l2tp_session* session = make(plain);
  ASSERT_TRUE(atomic_dec_and_test(&session->ref_count));
  l2tp_session_free(session);
}

TEST_F(l2tp_test, a_tunnel_outlives_its_maker_with_a_session) {
  l2tp_tunnel* tunnel = l2tp_tunnel_alloc(10, 20);
  l2tp_session* first = l2tp_session_alloc(tunnel, &plain);
  l2tp_session* second = l2tp_session_alloc(tunnel, &numbered);
  l2tp_tunnel_put(tunnel);
  l2tp_session_put(first);
  rcu_barrier();
  EXPECT_EQ(atomic_read(&second->tunnel->ref_count), 1);
  l2tp_session_put(second);
}

TEST_F(l2tp_test, without_memory_the_tunnel_is_not_held) {
  l2tp_tunnel* tunnel = l2tp_tunnel_alloc(10, 20);
  fault::fail_allocation(1);
  EXPECT_EQ(l2tp_session_alloc(tunnel, &plain), nullptr);
  EXPECT_EQ(atomic_read(&tunnel->ref_count), 1);
  fault::fail_allocation(1);
  EXPECT_EQ(l2tp_tunnel_alloc(10, 20), nullptr);
  l2tp_tunnel_put(tunnel);
}

TEST_F(l2tp_test, sequence_numbers_wrap_at_sixteen_bits) {
  l2tp_session* session = make(numbered);
  EXPECT_EQ(l2tp_session_next_ns(session), 0);
  session->ns = 0xFFFF;
  EXPECT_EQ(l2tp_session_next_ns(session), 0xFFFF);
  EXPECT_EQ(l2tp_session_next_ns(session), 0);
  session->nr = 0xFFFF;
  l2tp_session_count_nr(session);
  EXPECT_EQ(session->nr, 0);
  l2tp_session_put(session);
}

TEST_F(l2tp_test, every_sender_gets_numbers_of_its_own) {
  constexpr unsigned senders = 4;
  constexpr u32 packets = 10000;
  l2tp_session* session = make(numbered);
  std::vector<std::vector<u16>> taken(senders);
  std::vector<std::thread> threads;
  for (unsigned s = 0; s < senders; ++s) {
    threads.emplace_back([&, s] {
      for (u32 i = 0; i < packets; ++i) {
        const hosted::softirq_scope packet;
        if (!l2tp_session_get_not_zero(session)) return;
        taken[s].push_back(l2tp_session_next_ns(session));
        l2tp_session_count_nr(session);
        l2tp_session_put(session);
      }
    });
  }
  for (std::thread& t : threads)
    t.join();
  std::vector<u32> seen(senders * packets);
  for (const std::vector<u16>& own : taken)
    for (const u16 ns : own)
      ++seen.at(ns);
  for (const u32 times : seen)
    ASSERT_EQ(times, 1U);
  EXPECT_EQ(session->nr, senders * packets);
  EXPECT_EQ(atomic_read(&session->ref_count), 1);
  l2tp_session_put(session);
}

TEST_F(l2tp_test, the_checked_kernel_names_both_places_of_a_drop_too_many) {
  if (!kernel_checked) GTEST_SKIP() << "only in the checked build";
  rcu_barrier();  // no lock of another thread may be held in the child
  EXPECT_DEATH(
      {
        l2tp_session* session = make(plain);
        rcu_read_lock();
        l2tp_session_put(session);
        l2tp_session_put(session);
      },
      "L2TP session reference dropped below zero.*l2tp_test.cpp:[0-9]+.*l2tp_test.cpp:[0-9]+");
  EXPECT_DEATH(
      {
        l2tp_session* session = make(plain);
        l2tp_session_free(session);
      },
      "L2TP session freed while in use");
  EXPECT_DEATH(
      {
        l2tp_session* session = make(plain);
        atomic_set(&session->ref_count, 0);
        rcu_read_lock();
        l2tp_session_free(session);
        l2tp_session_free(session);
      },
      "L2TP session freed twice");
}

}  // namespace
