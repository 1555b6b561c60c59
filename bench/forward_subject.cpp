// SPDX-License-Identifier: GPL-2.0-only
//
// The module alone: connections and their entries are made the way the stack makes them, then
// frames go straight to the forward operation.
#include <algorithm>

#include "bench/sink_device.h"
#include "bench/subject.h"
#include "kernel/context.h"
#include "kernel/fast_path.h"
#include "kernel/module_loader.h"
#include "kernel/rcupdate.h"
#include "module/core/init.h"
#include "tests/support/connections.h"
#include "tests/support/fake_device.h"

namespace tarvelo::bench {
namespace {

// The add calls after which a connection is forwarded.
constexpr u32 add_calls_needed = 20;
constexpr u16 first_public_port = 1024;
constexpr u16 public_ports = 64000;

struct loaded {
  std::unique_ptr<loaded_module> module;

  loaded() {
    std::string error;
    module = loaded_module::load_linked(&init_module, &cleanup_module, &__this_module, &error);
    if (module == nullptr) wrong("the module does not load: " + error);
  }
};

class forward_subject final : public subject {
 public:
  explicit forward_subject(const std::vector<connection>& connections) {
    lan_->netdev_ops = &sink_ops;
    wan_->netdev_ops = &sink_ops;
    connections_.reserve(connections.size());
    for (std::size_t i = 0; i < connections.size(); ++i)
      add(connections[i], i);
    const int entries = kcih->_vok_ipc_count_get(kcih);
    if (entries != static_cast<int>(connections.size())) {
      wrong("there are " + std::to_string(entries) + " entries for " +
            std::to_string(connections.size()) + " connections");
    }
  }

  [[nodiscard]] net_device* input() const override { return lan_; }

  void run(std::span<sk_buff* const> batch) override {
    vok_handle* handle = kcih;
    for (sk_buff* skb : batch) {
      if (handle->_vok_forward(handle, skb, 0) != 0) wrong("a frame was handed back");
    }
  }

 private:
  /// What the stack does with the first packet of a connection at the post-routing hook.
  void add(const connection& c, std::size_t number) {
    nf_conntrack_tuple original{};
    original.src.u3.ip = c.client;
    original.src.u = c.client_port;
    original.src.l3num = NFPROTO_IPV4;
    original.dst.u3.ip = c.server;
    original.dst.u = c.server_port;
    original.dst.protonum = wire::ip_protocol::tcp;
    nf_conntrack_tuple translated = original;
    translated.src.u3.ip = test::ip4(public_address);
    translated.src.u = wire::htons(static_cast<u16>(first_public_port + number % public_ports));
    connections_.push_back(std::make_unique<test::tracked_connection>(original, original));
    const test::tracked_connection& tracked = *connections_.back();

    const hosted::softirq_scope softirq;
    sk_buff* skb = received(data_frame(c), wan_);
    skb->rx_dev = lan_;
    skb_pull(skb, wire::ethernet_length);
    skb->network_header = static_cast<u16>(skb_headroom(skb));
    tracked.attach(skb, IP_CT_ESTABLISHED);
    kcih->_ip_conntrack_ipct_add(kcih, skb, NF_INET_POST_ROUTING, tracked.get(), IP_CT_ESTABLISHED,
                                 &translated);
    tracked->vok_ext->add_calls = add_calls_needed;
    kfree_skb(skb);
  }

  loaded module_;
  test::fake_device lan_{"lan0", lan_mac};
  test::fake_device wan_{"wan0", wan_mac};
  test::scoped_route route_{"0.0.0.0", 0, wan_gateway, wan_};
  test::scoped_neighbour gateway_{wan_gateway, wan_, wan_gateway_mac};
  std::vector<std::unique_ptr<test::tracked_connection>> connections_;
};

}  // namespace

std::unique_ptr<subject> make_forward(const std::vector<connection>& connections) {
  return std::make_unique<forward_subject>(connections);
}

}  // namespace tarvelo::bench
