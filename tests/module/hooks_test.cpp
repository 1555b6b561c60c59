// SPDX-License-Identifier: GPL-2.0-only
#include <functional>

#include "kernel/mutex.h"
#include "module/brc/table.h"
#include "module/core/counters.h"
#include "module/forward/hooks.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 ipv4 = 2;

/// What the hooks of a test do and have seen; reset by the fixture.
struct {
  std::vector<int> order;
  unsigned verdict;
  std::function<void(sk_buff*)> act;
  u16 mac_header;
  u16 network_header;
} seen;

template <int Id>
unsigned note(unsigned, u8, sk_buff* skb) {
  seen.order.push_back(Id);
  seen.mac_header = skb->mac_header;
  seen.network_header = skb->network_header;
  if (seen.act) seen.act(skb);
  return Id == 0 ? seen.verdict : VOK_ACCEPT;
}

/// A hook record that is registered as long as it lives.
class scoped_hook {
 public:
  scoped_hook(vok_hook_fn fn, vok_hook_point point, s32 priority, u8 pf = ipv4) {
    ops_ = {{}, fn, nullptr, pf, point, priority, "tester"};
    EXPECT_EQ(kcih->_vok_register_hook(kcih, &ops_), 0);
  }
  ~scoped_hook() {
    EXPECT_EQ(kcih->_vok_unregister_hook(kcih, &ops_), 0);
    EXPECT_EQ(ops_.list.prev, reinterpret_cast<vok_hook_list*>(0x200));
    synchronize_rcu();
  }
  scoped_hook(const scoped_hook&) = delete;
  scoped_hook& operator=(const scoped_hook&) = delete;

 private:
  vok_hook_ops ops_;
};

class hooks : public module_scene {
 protected:
  hooks() {
    seen = {};
    seen.verdict = VOK_ACCEPT;
    ripen(source_nat(ct, tcp, false));
  }

  [[nodiscard]] static bytes frame() {
    return packet_of(tcp, lan_mac, host_mac, inside, peer).payload(8).build();
  }

  tracked_connection ct{tuple(tcp, inside, peer), tuple(tcp, peer, translated)};
};

TEST_F(hooks, run_in_order_of_priority_and_registration) {
  const scoped_hook a(note<1>, VOK_HOOK_IP_PRE_ROUTING, 10);
  const scoped_hook b(note<2>, VOK_HOOK_IP_PRE_ROUTING, -5);
  const scoped_hook c(note<3>, VOK_HOOK_IP_PRE_ROUTING, 10);
  const scoped_hook other_family(note<4>, VOK_HOOK_IP_PRE_ROUTING, 0, 10);
  EXPECT_EQ(offer(frame(), lan), fate::forward);
  EXPECT_EQ(seen.order, (std::vector<int>{2, 1, 3}));
  EXPECT_EQ(seen.mac_header, receive_headroom);
  EXPECT_EQ(seen.network_header, receive_headroom + 14);

  seen.order.clear();
  sk_buff* skb = make_skb(frame(), lan);
  const unsigned verdict =
      in_softirq([&] { return _vok_iterate(&vok_hooks[ipv4 * 4 + 1], skb, 1, ipv4, 0); });
  EXPECT_EQ(verdict, VOK_ACCEPT);
  EXPECT_EQ(seen.order, (std::vector<int>{1, 3})) << "below the threshold";
  kfree_skb(skb);
}

struct verdict_row {
  vok_hook_point point;
  unsigned verdict;
  fate result;
  const char* message;
  u32 sent;
};

TEST_F(hooks, verdicts_decide) {
  constexpr const char* post_error = "the VOK_HOOK_IP_POST_ROUTING return value is error\n";
  const verdict_row rows[] = {
      {VOK_HOOK_IP_PRE_ROUTING, VOK_DROP, fate::drop, nullptr, 0},
      {VOK_HOOK_IP_PRE_ROUTING, VOK_DIVERT, fate::hook_diverted, nullptr, 0},
      {VOK_HOOK_IP_PRE_ROUTING, 4, fate::hook_error,
       "the VOK_HOOK_IP_PRE_ROUTING return value is error\n", 0},
      {VOK_HOOK_IP_POST_ROUTING, VOK_DROP, fate::drop, nullptr, 0},
      {VOK_HOOK_IP_POST_ROUTING, VOK_DIVERT, fate::hook_diverted, nullptr, 0},
      {VOK_HOOK_IP_POST_ROUTING, 4, fate::hook_error, post_error, 0},
      {VOK_HOOK_XMIT, VOK_DROP, fate::forward, nullptr, 0},
      {VOK_HOOK_XMIT, 6, fate::forward, post_error, 1},
  };
  for (const verdict_row& row : rows) {
    SCOPED_TRACE(testing::Message() << "point " << row.point << " verdict " << row.verdict);
    const scoped_hook hook(note<0>, row.point, 0);
    seen.verdict = row.verdict;
    EXPECT_EQ(offer(frame(), lan), row.result);
    EXPECT_EQ(wan.take().size(), row.sent);
    EXPECT_EQ(ct.references(), 1);
    const auto lines = log.take_text();
    ASSERT_EQ(lines.size(), row.message != nullptr ? 1U : 0U);
    if (row.message != nullptr) {
      EXPECT_EQ(lines[0], row.message);
    }
  }
}

TEST_F(hooks, may_take_the_buffer_at_transmit) {
  const scoped_hook hook(note<0>, VOK_HOOK_XMIT, 0);
  sk_buff* taken = nullptr;
  seen.verdict = VOK_DIVERT;
  seen.act = [&](sk_buff* skb) { taken = skb; };
  EXPECT_EQ(offer(frame(), lan), fate::forward);
  ASSERT_NE(taken, nullptr);
  EXPECT_EQ(taken->dev, wan.get());
  EXPECT_TRUE(wan.sent().empty());
  in_softirq([&] { kfree_skb(taken); });
}

TEST_F(hooks, a_fault_is_logged_and_passed_over) {
  const scoped_hook faulty(note<0>, VOK_HOOK_IP_PRE_ROUTING, 0);
  const scoped_hook sound(note<1>, VOK_HOOK_IP_PRE_ROUTING, 1);
  seen.verdict = 3;
  EXPECT_EQ(offer(frame(), lan), fate::forward);
  EXPECT_EQ(seen.order, (std::vector<int>{0, 1}));
  const auto lines = log.take_text();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].find("the return value is error, return from "), std::string::npos);
  EXPECT_NE(lines[0].find("(1), the module name is tester.\n"), std::string::npos) << lines[0];
}

/// A hook may move the data to another block, and may leave less of it than was looked at.
TEST_F(hooks, the_data_may_have_moved) {
  const scoped_hook hook(note<1>, VOK_HOOK_IP_POST_ROUTING, 0);
  seen.act = [](sk_buff* skb) {
    skb_push(skb, 16);
    memmove(skb->data, skb->data + 16, skb->len - 16);
    skb_trim(skb, skb->len - 16);
  };
  EXPECT_EQ(offer(frame(), lan), fate::forward);
  const auto sent = wan.take();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_FRAME_EQ(sent[0].data,
                  packet_of(tcp, gateway_mac, wan_mac, translated, peer).payload(8).build());

  seen.act = [](sk_buff* skb) { skb_trim(skb, 50); };
  sk_buff* skb = make_skb(frame(), lan);
  EXPECT_EQ(in_softirq([&] { return kcih->_vok_forward(kcih, skb, 0); }), -1);
  EXPECT_EQ(ct.references(), 1);
  kfree_skb(skb);
}

TEST_F(hooks, bridge_point_guards_the_bridged_path) {
  ::brc ends[2] = {};
  const char* addresses[] = {host_mac, gateway_mac};
  for (int i = 0; i < 2; ++i) {
    const mac at = mac_of(addresses[i]);
    std::copy(std::begin(at.at), std::end(at.at), ends[i].dmac);
    ends[i].sendif = i == 0 ? lan.get() : wan.get();
    ends[i].tag_mode = static_cast<u8>(tag_mode::untag);
    ASSERT_EQ(_vok_brc_add(kcih, &ends[i]), 0);
  }
  const bytes crossing = packet_of(tcp, gateway_mac, host_mac, inside, peer).build();
  const scoped_hook hook(note<0>, VOK_HOOK_BRIDGE_ROUTING, 0);
  for (const auto& [verdict, result] : {std::pair{0U, fate::drop},
                                        {1U, fate::forward},
                                        {2U, fate::hook_diverted},
                                        {5U, fate::hook_error}}) {
    seen.verdict = verdict;
    EXPECT_EQ(offer(crossing, lan), result);
  }
  EXPECT_EQ(wan.take().size(), 1U);
  EXPECT_EQ(log.take_text(),
            std::vector<std::string>{"the VOK_HOOK_BRIDGE_ROUTING return value is error\n"});
}

TEST_F(hooks, an_interrupted_registration_changes_nothing) {
  vok_hook_ops ops = {{}, note<1>, nullptr, ipv4, VOK_HOOK_IP_PRE_ROUTING, 0, "tester"};
  hosted_set_signal_pending();
  const int error = kcih->_vok_register_hook(kcih, &ops);
  EXPECT_LT(error, 0);
  EXPECT_FALSE(has_hooks(hook_list(family::ipv4, VOK_HOOK_IP_PRE_ROUTING)));
  EXPECT_EQ(log.take_text(),
            std::vector<std::string>{"_vok_register_hook 3639: get mutex failed, err = " +
                                     std::to_string(error) + "\n"});
}

}  // namespace
}  // namespace tarvelo::test
