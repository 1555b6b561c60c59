// SPDX-License-Identifier: GPL-2.0-only
//
// Hooks with every verdict at every point, registered anew for each frame of traffic and taken away
// after it: what they drop or take is gone, all else arrives by one path or the other.
#include <algorithm>

#include "kernel/fast_path.h"
#include "tests/faults/life.h"
#include "tests/faults/scene_hooks.h"

namespace tarvelo::test {
namespace {

constexpr unsigned no_verdict = 4;
constexpr unsigned faulty_verdict = 3;

struct verdict_row {
  unsigned verdict;
  bool is_lost;  ///< what the hook sees does not arrive
  bool is_lost_at_xmit;
  bool is_logged;
};
constexpr verdict_row verdicts[] = {
    {VOK_ACCEPT, false, false, false}, {VOK_DROP, true, true, false},
    {VOK_DIVERT, false, true, false},  {faulty_verdict, false, false, true},
    {no_verdict, false, false, true},  {~0U, false, false, true},
};

class hook_faults : public kernel_test, public testing::WithParamInterface<const char*> {};

TEST_P(hook_faults, lose_what_a_hook_says_and_nothing_else) {
  const conversation talk = read_conversation(GetParam());
  const sent_frames expected = undisturbed(talk);
  int seen_at_any = 0;
  for (const vok_hook_point point : hook_points) {
    for (const verdict_row& row : verdicts) {
      SCOPED_TRACE(testing::Message() << "point " << point << ", verdict " << row.verdict);
      life one(talk);
      one.build();
      ASSERT_TRUE(one.load());
      one.prepare_traffic();
      static_cast<void>(log.take());
      int seen = 0;
      {
        hook_everywhere hook(point, [&](sk_buff* skb) {
          ++seen;
          if (point == VOK_HOOK_XMIT && row.verdict == VOK_DIVERT) kfree_skb(skb);
          return row.verdict;
        });
        one.before_frame = [&](std::size_t) { hook.attach(); };
        one.after_frame = [&](std::size_t) { hook.detach(); };
        one.traffic();
      }
      seen_at_any += seen;
      const int lost = (point == VOK_HOOK_XMIT ? row.is_lost_at_xmit : row.is_lost) ? seen : 0;
      const int missing = missing_from(one.take_sent(), expected);
      EXPECT_GE(missing, lost);
      EXPECT_LE(missing, lost * std::max(1, reassembled_frames(GetParam())));
      EXPECT_EQ(log.take_text().size(), row.is_logged ? static_cast<std::size_t>(seen) : 0U);
    }
  }
  EXPECT_GT(seen_at_any, 0);
}

INSTANTIATE_TEST_SUITE_P(talks, hook_faults, testing::ValuesIn(conversations),
                         [](const auto& row) { return test_name(row.param); });

}  // namespace
}  // namespace tarvelo::test
