// SPDX-License-Identifier: GPL-2.0-only
//
//   test_fast_against_slow [--seed N] [--flows M] [GoogleTest's options]
//
// Random traffic, the same frames with the fast path off and on: the same frames leave. --seed is
// the first seed, and each makes a network with 40 flows.
#include <gtest/gtest.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "tests/differential/replay.h"
#include "tests/support/kernel_fixture.h"

namespace tarvelo::test {
namespace {

constexpr unsigned flows_per_network = 40;
u32 first_seed = 1;
u32 flows = 40 * flows_per_network;

using stack::receive_verdict;

/// How many frames there were, and how many of them went the fast way, by kind of link.
struct share {
  unsigned frames = 0;
  unsigned fast = 0;
};
using shares = std::array<std::array<share, std::size(link_names)>, std::size(link_names)>;

void count(const traffic& what, const std::vector<outcome>& outcomes, shares& by_kind) {
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    const flow& f = what.flows[what.steps[i].flow];
    const flow_side& s = f.side[what.steps[i].direction];
    share& counted = by_kind[static_cast<u8>(s.from->kind)][static_cast<u8>(s.to->kind)];
    ++counted.frames;
    if (outcomes[i].verdict == receive_verdict::fast) ++counted.fast;
  }
}

/// What goes into one tunnel out of another, and from any session to a link without Ethernet, stays
/// with the stack.
[[nodiscard]] bool has_fast_path(std::size_t from, std::size_t to) {
  const auto into = static_cast<link_kind>(to);
  const auto out_of = static_cast<link_kind>(from);
  const auto tunnel = [](link_kind k) { return k == link_kind::l2tp || k == link_kind::pptp; };
  const bool session = out_of == link_kind::pppoe || tunnel(out_of);
  return !(tunnel(out_of) && tunnel(into)) && !(session && into == link_kind::rawip);
}

/// Without frames that went the fast way there would be nothing to compare.
void expect_fast(const shares& by_kind) {
  constexpr unsigned enough = 1000;
  share all;
  for (std::size_t from = 0; from < by_kind.size(); ++from) {
    for (std::size_t to = 0; to < by_kind.size(); ++to) {
      const share& s = by_kind[from][to];
      if (!has_fast_path(from, to)) continue;
      all.frames += s.frames;
      all.fast += s.fast;
      if (s.frames < enough) continue;
      EXPECT_GT(s.fast * 8, s.frames) << link_names[from] << " to " << link_names[to];
    }
  }
  EXPECT_GT(all.fast * 2, all.frames);
  std::printf("%u frames, %u of them by the fast path\n", all.frames, all.fast);
}

class fast_against_slow : public kernel_test {};

TEST_F(fast_against_slow, the_same_frames_leave) {
  shares by_kind{};
  for (u32 seed = first_seed; seed < first_seed + flows / flows_per_network; ++seed) {
    SCOPED_TRACE("again with --seed " + std::to_string(seed) + " --flows " +
                 std::to_string(flows_per_network));
    const traffic what(seed, flows_per_network);
    const std::vector<outcome> slow = replay(what, false);
    const std::vector<outcome> fast = replay(what, true);
    count(what, fast, by_kind);
    ASSERT_TRUE(agree(what, slow, fast));
  }
  expect_fast(by_kind);
}

}  // namespace
}  // namespace tarvelo::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  bool good = argc % 2 == 1;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string_view name = argv[i];
    const std::string_view value = argv[i + 1];
    u32* to = name == "--seed"    ? &tarvelo::test::first_seed
              : name == "--flows" ? &tarvelo::test::flows
                                  : nullptr;
    const char* end = value.data() + value.size();
    good = good && to != nullptr && std::from_chars(value.data(), end, *to).ptr == end;
  }
  if (!good || tarvelo::test::flows < tarvelo::test::flows_per_network) {
    std::fputs("test_fast_against_slow: what it takes is --seed N --flows M, M from 40 on\n",
               stderr);
    return 2;
  }
  return RUN_ALL_TESTS();
}
