// SPDX-License-Identifier: GPL-2.0-only
//
// The whole router as the command runs it, with frames handed to its receive function. Each
// connection is opened by a real handshake and carried past the threshold of the fast path.
#include <cstring>

#include "bench/sink_device.h"
#include "bench/subject.h"
#include "kernel/context.h"
#include "kernel/fast_path.h"
#include "kernel/module_loader.h"
#include "module/core/init.h"
#include "stack/router.h"
#include "tests/support/fake_device.h"
#include "tests/support/packet_builder.h"
#include "tests/support/packet_decoder.h"

namespace tarvelo::bench {
namespace {

constexpr unsigned data_frames_to_open = 25;

test::bytes last_sent;

int remembering_start_xmit(sk_buff* skb, net_device*) {
  last_sent = test::bytes_of(skb);
  kfree_skb(skb);
  return NETDEV_TX_OK;
}

/// While connections are opened, frames are remembered; afterwards they are only freed.
int (*current_xmit)(sk_buff* skb, net_device* dev) = &remembering_start_xmit;

int port_start_xmit(sk_buff* skb, net_device* dev) {
  return current_xmit(skb, dev);
}

constexpr net_device_ops port_ops{.ndo_start_xmit = &port_start_xmit};

stack::mac_address mac_address(const char* text) {
  stack::mac_address result{};
  std::memcpy(result.bytes, test::mac_of(text).at, sizeof result.bytes);
  return result;
}

stack::device_config port(const char* name, const char* mac, const char* address, u8 length) {
  stack::device_config device;
  device.name = name;
  device.link = stack::port_link{.interface = name, .mac = mac_address(mac)};
  device.addresses = {stack::ipv4_prefix{.address = test::ip4(address), .length = length}};
  return device;
}

stack::router_config home_router() {
  stack::router_config config;
  config.devices = {port("lan0", lan_mac, "192.168.1.1", 24),
                    port("wan0", wan_mac, public_address, 24)};
  config.routes = {{.to = stack::ipv4_prefix{.address = 0, .length = 0},
                    .via = stack::ip_address(test::ip4(wan_gateway)),
                    .device = "wan0"}};
  config.neighbours = {
      {.device = "wan0", .address = test::ip4(wan_gateway), .mac = mac_address(wan_gateway_mac)}};
  constexpr u32 first_host = 2;
  constexpr u32 last_host = 201;
  for (u32 host = first_host; host <= last_host; ++host) {
    config.neighbours.push_back({.device = "lan0",
                                 .address = wire::htonl(0xC0A80100 + host),
                                 .mac = mac_address(lan_host_mac)});
  }
  config.masquerade = {"wan0"};
  return config;
}

class router_subject final : public subject {
 public:
  router_subject(const std::vector<connection>& connections, stack::receive_verdict way)
      : way_(way), router_(home_router(), &port_ops) {
    std::string error;
    module_ = loaded_module::load_linked(&init_module, &cleanup_module, &__this_module, &error);
    if (module_ == nullptr) wrong("the module does not load: " + error);
    lan_ = router_.device("lan0");
    wan_ = router_.device("wan0");
    current_xmit = &remembering_start_xmit;
    for (const connection& c : connections)
      open(c);
    current_xmit = &sink_start_xmit;
    kcih->enable = way == stack::receive_verdict::fast ? 1 : 0;
  }

  [[nodiscard]] net_device* input() const override { return lan_; }

  void run(std::span<sk_buff* const> batch) override {
    for (sk_buff* skb : batch) {
      const bool offer = way_ == stack::receive_verdict::fast;
      if (router_.receive(skb) != way_) {
        wrong(offer ? "a frame took the slow path" : "a frame was not forwarded by the stack");
      }
    }
  }

 private:
  void receive(const test::bytes& frame, net_device* dev) {
    const hosted::softirq_scope softirq;
    if (router_.receive(test::make_skb(frame, dev)) == stack::receive_verdict::dropped) {
      wrong("the router dropped a frame while a connection was opened");
    }
  }

  void open(const connection& c) {
    const std::string client = test::ip4_text(c.client);
    const std::string server = test::ip4_text(c.server);
    const test::packet from_client =
        test::packet()
            .eth(lan_mac, lan_host_mac)
            .ipv4(client, server)
            .tcp(wire::ntohs(c.client_port), wire::ntohs(c.server_port));
    receive(test::packet(from_client).flags(wire::tcp_flag::syn).seq(0).build(), lan_);
    const u16 public_port = test::tcp_of(last_sent).source.host();
    receive(test::packet()
                .eth(wan_mac, wan_gateway_mac)
                .ipv4(server, public_address)
                .tcp(wire::ntohs(c.server_port), public_port)
                .flags(wire::tcp_flag::syn | wire::tcp_flag::ack)
                .seq(0, 1)
                .build(),
            wan_);
    receive(test::packet(from_client).seq(1, 1).build(), lan_);
    const test::bytes data = data_frame(c);
    for (unsigned i = 0; i < data_frames_to_open; ++i) {
      receive(data, lan_);
    }
  }

  stack::receive_verdict way_;
  stack::router router_;
  std::unique_ptr<loaded_module> module_;
  net_device* lan_ = nullptr;
  net_device* wan_ = nullptr;
};

}  // namespace

std::unique_ptr<subject> make_router_fast(const std::vector<connection>& connections) {
  return std::make_unique<router_subject>(connections, stack::receive_verdict::fast);
}

std::unique_ptr<subject> make_router_slow(const std::vector<connection>& connections) {
  return std::make_unique<router_subject>(connections, stack::receive_verdict::slow);
}

}  // namespace tarvelo::bench
