// SPDX-License-Identifier: GPL-2.0-only
#include "tests/faults/life.h"

#include "app/replay_session.h"
#include "kernel/fast_path.h"
#include "kernel/proc_tree.h"
#include "module/core/init.h"
#include "tests/support/fake_device.h"

namespace tarvelo::test {

namespace {

/// Longer than any timer of the stack runs, tracked connections included.
constexpr u32 all_is_forgotten = 10U * 24 * 3600 * HZ;
constexpr std::size_t compared_length = 16;

}  // namespace

int missing_from(const sent_frames& sent, const sent_frames& expected) {
  int missing = 0;
  for (const auto& [frame, times] : expected) {
    const auto found = sent.find(frame);
    missing += std::max(0, times - (found == sent.end() ? 0 : found->second));
  }
  return missing;
}

int count_of(const sent_frames& frames) {
  int count = 0;
  for (const auto& [frame, times] : frames)
    count += times;
  return count;
}

life::life(const conversation& talk) : talk_(talk) {
  rcu_barrier();
  before_ = fault::now();
}

life::~life() {
  fault::fail_allocation(0);
  module_.reset();
  router_.reset();
  for (sk_buff* skb : waiting_)
    kfree_skb(skb);
  EXPECT_EQ(kcih, nullptr);
  EXPECT_TRUE(proc::list("").empty()) << "a control file is left";
  rcu_barrier();
  EXPECT_EQ(fault::now(), before_);
  // A timer that still runs finds its memory gone.
  kernel_clock::advance_to(jiffies + all_is_forgotten);
}

void life::build() {
  static const net_device_ops drivers{.ndo_start_xmit = &life::transmit};
  router_ = std::make_unique<stack::router>(talk_.config.router, &drivers);
  for (const stack::device_config& device : talk_.config.router.devices) {
    if (!app::link_of(device)) continue;
    ports_.push_back(router_->device(device.name));
    ports_.back()->priv = this;
  }
}

bool life::load() {
  std::string error;
  module_ = loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
  if (module_ != nullptr) return true;
  EXPECT_EQ(error, "tarvelo: init_module failed with -1");
  EXPECT_EQ(kcih, nullptr);
  EXPECT_TRUE(proc::list("").empty());
  return false;
}

void life::prepare_traffic() {
  kernel_clock::advance_to(jiffies + all_is_forgotten);
  sent_.clear();
  for (const arriving_frame& frame : talk_.frames)
    waiting_.push_back(make_buffer(frame));
}

sk_buff* life::make_buffer(const arriving_frame& frame) const {
  sk_buff* skb = make_skb(frame.data, router_->device(frame.port));
  skb->rx_dev = nullptr;
  return skb;
}

void life::receive(sk_buff* skb) {
  in_softirq([&] { static_cast<void>(router_->receive(skb)); });
}

void life::traffic() {
  const u32 beginning = jiffies;
  std::size_t number = 0;
  for (sk_buff* skb : std::exchange(waiting_, {})) {
    kernel_clock::advance_to(beginning + talk_.frames[number].time);
    if (before_frame) before_frame(number);
    receive(skb);
    if (after_frame) after_frame(number);
    ++number;
  }
}

std::vector<net_device*> life::devices() const {
  std::vector<net_device*> all;
  for (const stack::device_config& device : talk_.config.router.devices)
    all.push_back(router_->device(device.name));
  return all;
}

int life::transmit(sk_buff* skb, net_device* dev) {
  auto* self = static_cast<life*>(dev->priv);
  if (self != nullptr) {
    const int result = self->answer ? self->answer() : NETDEV_TX_OK;
    if (result != NETDEV_TX_OK) return result;
    const bytes data = bytes_of(skb);
    const std::size_t kept = std::min(data.size(), compared_length);
    ++self->sent_[{dev->name, bytes(data.end() - static_cast<std::ptrdiff_t>(kept), data.end())}];
  }
  kfree_skb(skb);
  return NETDEV_TX_OK;
}

sent_frames undisturbed(const conversation& talk) {
  life one(talk);
  one.build();
  EXPECT_TRUE(one.load());
  one.prepare_traffic();
  one.traffic();
  EXPECT_GT(one.router().statistics().fast, 0U);
  return one.take_sent();
}

}  // namespace tarvelo::test
