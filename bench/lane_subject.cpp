// SPDX-License-Identifier: GPL-2.0-only
//
// The whole router over one lane. Each connection is made ripe by datagrams in both directions, so
// that either direction can be measured.
#include "bench/sink_device.h"
#include "bench/subject.h"
#include "kernel/context.h"
#include "kernel/fast_path.h"
#include "kernel/module_loader.h"
#include "module/core/init.h"
#include "stack/router.h"
#include "tests/support/fake_device.h"

namespace tarvelo::bench {
namespace {

// Both directions together pass the 20 adds that a connection needs.
constexpr unsigned exchanges_to_open = 12;

class lane_subject final : public subject {
 public:
  lane_subject(const lane& l, direction way, bool fast, const std::vector<connection>& connections)
      : lane_(l),
        way_(way),
        wanted_(fast ? stack::receive_verdict::fast : stack::receive_verdict::slow),
        router_(l.router(), &sink_ops) {
    std::string error;
    module_ = loaded_module::load_linked(&init_module, &cleanup_module, &__this_module, &error);
    if (module_ == nullptr) wrong("the module does not load: " + error);
    lan_ = router_.device("lan0");
    wan_ = router_.device("wan0");
    for (const connection& c : connections)
      open(c);
    kcih->enable = fast ? 1 : 0;
  }

  [[nodiscard]] std::vector<frame_group> traffic(
      const std::vector<connection>& connections) const override {
    std::vector<frame_group> groups;
    for (const connection& c : connections)
      groups.push_back(datagram(lane_, c, way_));
    return groups;
  }

  [[nodiscard]] net_device* input() const override {
    return way_ == direction::outwards ? lan_ : wan_;
  }

  void run(std::span<sk_buff* const> batch) override {
    for (sk_buff* skb : batch) {
      if (router_.receive(skb) != wanted_) wrong("a frame of lane " + lane_.name + " went astray");
    }
  }

 private:
  void open(const connection& c) {
    const test::bytes outwards = whole_datagram(lane_, c, direction::outwards);
    const test::bytes inwards = whole_datagram(lane_, c, direction::inwards);
    for (unsigned i = 0; i < exchanges_to_open; ++i) {
      receive(outwards, lan_);
      receive(inwards, wan_);
    }
  }

  void receive(const test::bytes& frame, net_device* dev) {
    const hosted::softirq_scope softirq;
    if (router_.receive(bench::received(frame, dev)) == stack::receive_verdict::dropped) {
      wrong("the router dropped a frame of lane " + lane_.name + " while a connection was opened");
    }
  }

  const lane& lane_;
  direction way_;
  stack::receive_verdict wanted_;
  stack::router router_;
  std::unique_ptr<loaded_module> module_;
  net_device* lan_ = nullptr;
  net_device* wan_ = nullptr;
};

}  // namespace

std::unique_ptr<subject> make_lane(const lane& l, direction way, bool fast,
                                   const std::vector<connection>& connections) {
  return std::make_unique<lane_subject>(l, way, fast, connections);
}

}  // namespace tarvelo::bench
