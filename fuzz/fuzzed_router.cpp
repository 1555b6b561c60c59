// SPDX-License-Identifier: GPL-2.0-only
#include "fuzz/fuzzed_router.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "app/config.h"
#include "kernel/context.h"
#include "kernel/jiffies.h"
#include "kernel/printk.h"
#include "kernel/rcupdate.h"
#include "module/core/init.h"
#include "tests/support/fake_device.h"
#include "tests/support/module_invariants.h"

namespace tarvelo::fuzz {
namespace {

constexpr u32 shortly_before_the_wrap = 0xFFFFFF00;
constexpr std::size_t longest_frame = 2048;
/// Reports after which the module takes a connection, and some more.
constexpr unsigned rounds_to_ripen = 25;

/// What leaves is whole enough to be put on a link.
int look_and_free(sk_buff* skb, net_device* dev) {
  const bool raw = (read_once(dev->flags) & IFF_POINTOPOINT) != 0;
  const u32 least = raw ? wire::ipv4_min_length : wire::ethernet_length;
  if (skb_headlen(skb) != skb->len || skb->len < least) fail("a frame was sent that is none");
  const u32 link = raw ? 0 : wire::tagged_ethernet_length;
  if (skb->len > dev->mtu + link) fail("a frame was sent that is longer than its device takes");
  kfree_skb(skb);
  return NETDEV_TX_OK;
}

constexpr net_device_ops driver = {.ndo_start_xmit = look_and_free};

const stack::router_config& configuration() {
  static const app::app_config config = app::load_config(FUZZ_ROUTER);
  return config.router;
}

}  // namespace

void fail(const std::string& reason) {
  std::fprintf(stderr, "%s\n", reason.c_str());
  std::abort();
}

fuzzed_router::fuzzed_router() {
  const stack::router_config& config = configuration();  // before what follows is counted
  klog::set_sink([](void*, klog::level, const char*) noexcept {}, nullptr);
  kernel_clock::start_at(shortly_before_the_wrap);
  before_ = fault::now();
  router_ = std::make_unique<stack::router>(config, &driver);
}

fuzzed_router::~fuzzed_router() {
  check();
  module_.reset();
  router_.reset();
  rcu_barrier();
  if (fault::now() != before_) fail("something has not been given back");
}

stack::receive_verdict fuzzed_router::receive(const sent_frame& frame) {
  return receive(frame.port, frame.bytes.data(), frame.bytes.size());
}

stack::receive_verdict fuzzed_router::receive(const std::string& port, const u8* data,
                                              std::size_t size) {
  const test::bytes frame(data, data + std::min(size, longest_frame));
  sk_buff* skb = nullptr;
  try {
    skb = test::make_skb(frame, router_->device(port));
  } catch (const std::bad_alloc&) {
    return stack::receive_verdict::dropped;  // as a driver without memory does
  }
  const hosted::softirq_scope softirq;
  return router_->receive(skb);
}

void fuzzed_router::load_module() {
  std::string error;
  module_ = loaded_module::load_linked(init_module, cleanup_module, &__this_module, &error);
  if (module_ == nullptr) fail(error);
}

void fuzzed_router::open_conversations() {
  for (const conversation& c : conversations()) {
    for (const sent_frame& first : c.opening)
      receive(first);
    for (unsigned round = 0; round < rounds_to_ripen; ++round) {
      receive(c.there);
      receive(c.back);
    }
    for (const sent_frame* frame : {&c.there, &c.back}) {
      if (receive(*frame) != stack::receive_verdict::fast) {
        fail(std::string(c.name) + " does not take the fast path");
      }
    }
  }
}

void fuzzed_router::pass(u32 milliseconds) {
  kernel_clock::advance_to(jiffies + milliseconds);
}

void fuzzed_router::check() const {
  if (const std::string rule = test::broken_invariant(); !rule.empty()) fail(rule);
}

}  // namespace tarvelo::fuzz
