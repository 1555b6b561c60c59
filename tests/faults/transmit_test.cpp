// SPDX-License-Identifier: GPL-2.0-only
//
// Each transmission of a conversation failing once, each frame's devices going down between lookup
// and transmit, and going down for real between frames: that frame is lost and no other.
#include <algorithm>

#include "tests/faults/life.h"
#include "tests/faults/scene_hooks.h"

namespace tarvelo::test {
namespace {

class transmit_faults : public kernel_test, public testing::WithParamInterface<const char*> {
 protected:
  /// One conversation, disturbed by what `prepare` sets up. How many frames are missing.
  int missing_when(const std::function<void(life&)>& prepare) {
    life one(talk);
    one.build();
    EXPECT_TRUE(one.load());
    one.prepare_traffic();
    prepare(one);
    one.traffic();
    static_cast<void>(log.take());
    return missing_from(one.take_sent(), expected);
  }
  void expect_loss(int missing) const {
    EXPECT_GE(missing, 1);
    EXPECT_LE(missing, std::max(1, reassembled_frames(GetParam())));
  }

  const conversation talk = read_conversation(GetParam());
  const sent_frames expected = undisturbed(talk);
};

TEST_P(transmit_faults, lose_the_frame_that_a_driver_refuses) {
  constexpr int busy = 0x10;  // of a real kernel's drivers, as is a plain 1
  for (const int code : {-EBUSY, -ENETDOWN, 1, busy}) {
    for (int refused = 1; refused <= count_of(expected); ++refused) {
      SCOPED_TRACE(testing::Message() << "transmission " << refused << " answered by " << code);
      expect_loss(missing_when([&](life& one) {
        one.answer = [code, left = refused]() mutable { return --left == 0 ? code : NETDEV_TX_OK; };
      }));
    }
  }
}

TEST_P(transmit_faults, lose_the_frame_whose_devices_go_down_under_way) {
  for (const vok_hook_point point :
       {VOK_HOOK_BRIDGE_ROUTING, VOK_HOOK_IP_POST_ROUTING, VOK_HOOK_XMIT}) {
    for (int closing = 1, seen = closing; seen >= closing; ++closing) {
      SCOPED_TRACE(testing::Message() << "call " << closing << " at point " << point);
      seen = 0;
      std::vector<net_device*> all;
      hook_everywhere hook(point, [&](sk_buff*) -> unsigned {
        if (++seen == closing) std::for_each(all.begin(), all.end(), dev_close);
        return VOK_ACCEPT;
      });
      const int missing = missing_when([&](life& one) {
        all = one.devices();
        one.before_frame = [&](std::size_t) { hook.attach(); };
        one.after_frame = [&](std::size_t) {
          hook.detach();
          std::for_each(all.begin(), all.end(), dev_open);
        };
      });
      if (seen >= closing) {
        expect_loss(missing);
      } else {
        EXPECT_EQ(missing, 0);
      }
    }
  }
}

TEST_P(transmit_faults, lose_nothing_that_is_sent_again_when_links_are_up) {
  for (std::size_t cut = 0; cut < talk.frames.size(); ++cut) {
    SCOPED_TRACE(testing::Message() << "links down at frame " << cut);
    const int missing = missing_when([&](life& one) {
      const auto set_links = [&one](bool up) {
        for (net_device* port : one.ports())
          one.router().set_link(port, up);
      };
      one.before_frame = [=](std::size_t number) {
        if (number == cut) set_links(false);
      };
      one.after_frame = [=, &one](std::size_t number) {
        if (number != cut) return;
        set_links(true);
        one.send_again(number);
      };
    });
    EXPECT_LE(missing, reassembled_frames(GetParam()));
  }
}

INSTANTIATE_TEST_SUITE_P(talks, transmit_faults, testing::ValuesIn(conversations),
                         [](const auto& row) { return test_name(row.param); });

}  // namespace
}  // namespace tarvelo::test
