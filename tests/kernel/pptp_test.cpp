// SPDX-License-Identifier: GPL-2.0-only
// The sequence and acknowledgement numbers of a PPTP call.
#include "kernel/pptp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

struct number_row {
  u32 current;
  u32 received;
  u32 after;
};

TEST(pptp_numbers, the_later_acknowledgement_wins) {
  const number_row rows[] = {
      {5, 6, 6},
      {5, 5, 5},
      {6, 5, 6},
      {0xFFFFFFF0, 5, 5},
      {0xFFFFFF00, 255, 255},
      {0xFFFFFF00, 256, 0xFFFFFF00},
      {0xFFFFFEFF, 5, 0xFFFFFEFF},
  };
  for (const number_row& r : rows)
    EXPECT_EQ(pptp_later_ack(r.current, r.received), r.after) << r.current << ' ' << r.received;
}

TEST(pptp_numbers, the_later_sequence_number_wins) {
  const number_row rows[] = {
      {5, 6, 6},
      {5, 9, 9},
      {6, 5, 6},
      {0xFFFFFFFF, 0, 0},
      {5, 0xFFFFFFFE, 5},
      {255, 0xFFFFFF00, 255},
      {256, 0xFFFFFF00, 0xFFFFFF00},
      {255, 0xFFFFFEFF, 0xFFFFFEFF},
  };
  for (const number_row& r : rows)
    EXPECT_EQ(pptp_later_seq(r.current, r.received), r.after) << r.current << ' ' << r.received;
}

wire::pptp_gre_hdr received(u32 sequence, u32 acknowledgement) {
  wire::pptp_gre_hdr gre = {};
  gre.flags = wire::gre_flag::pptp_data;
  gre.version = wire::gre_version::pptp | wire::gre_version::acknowledgement;
  gre.numbers[0] = wire::be32(sequence);
  gre.numbers[1] = wire::be32(acknowledgement);
  return gre;
}

pptp_params fresh_call() {
  pptp_params params = {};
  pptp_numbers_init(&params);
  return params;
}

TEST(pptp_numbers, a_fresh_call_counts_from_one_and_acknowledges_a_first_zero) {
  pptp_params call = fresh_call();
  u32 ack = 99;
  EXPECT_FALSE(pptp_take_ack(&call, &ack));
  EXPECT_EQ(pptp_next_seq(&call), 1U);
  EXPECT_EQ(pptp_next_seq(&call), 2U);
  EXPECT_EQ(call.seq_sent, 2U);

  const wire::pptp_gre_hdr first = received(0, 2);
  pptp_note_received(&call, &first);
  EXPECT_EQ(call.ack_recv, 2U);
  ASSERT_TRUE(pptp_take_ack(&call, &ack));
  EXPECT_EQ(ack, 0U);
  EXPECT_EQ(call.ack_sent, 0U);
  EXPECT_FALSE(pptp_take_ack(&call, &ack)) << "acknowledged twice";
}

TEST(pptp_numbers, a_bare_acknowledgement_is_no_sequence_number) {
  pptp_params call = fresh_call();
  wire::pptp_gre_hdr bare = received(7, 0);
  bare.flags = wire::gre_flag::key;
  pptp_note_received(&call, &bare);
  EXPECT_EQ(call.ack_recv, 7U);
  EXPECT_EQ(call.seq_recv, ~0U);

  wire::pptp_gre_hdr data = received(3, 9);
  data.version = wire::gre_version::pptp;
  pptp_note_received(&call, &data);
  EXPECT_EQ(call.seq_recv, 3U);
  EXPECT_EQ(call.ack_recv, 7U) << "the word behind the header was read as a number";
}

TEST(pptp_numbers, every_sender_gets_numbers_of_its_own) {
  constexpr unsigned senders = 4;
  constexpr u32 packets = 20000;
  pptp_params call = fresh_call();
  std::vector<std::vector<u32>> sequences(senders);
  std::vector<std::vector<u32>> acks(senders);
  std::vector<std::thread> threads;
  for (unsigned s = 0; s < senders; ++s) {
    threads.emplace_back([&, s] {
      for (u32 i = 1; i <= packets; ++i) {
        const wire::pptp_gre_hdr gre = received(i, i);
        pptp_note_received(&call, &gre);
        sequences[s].push_back(pptp_next_seq(&call));
        u32 ack = 0;
        if (pptp_take_ack(&call, &ack)) acks[s].push_back(ack);
      }
    });
  }
  for (std::thread& t : threads)
    t.join();

  std::vector<u32> all;
  for (const std::vector<u32>& own : sequences)
    all.insert(all.end(), own.begin(), own.end());
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), senders * packets);
  for (u32 i = 0; i < all.size(); ++i)
    ASSERT_EQ(all[i], i + 1);

  std::vector<u32> acknowledged;
  for (const std::vector<u32>& own : acks)
    acknowledged.insert(acknowledged.end(), own.begin(), own.end());
  std::sort(acknowledged.begin(), acknowledged.end());
  EXPECT_EQ(std::adjacent_find(acknowledged.begin(), acknowledged.end()), acknowledged.end())
      << "one number acknowledged twice";
  EXPECT_EQ(acknowledged.back(), packets);
  EXPECT_EQ(call.ack_recv, packets);
  EXPECT_EQ(call.seq_recv, packets);
}

}  // namespace
