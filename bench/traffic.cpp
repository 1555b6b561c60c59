// SPDX-License-Identifier: GPL-2.0-only
#include "bench/traffic.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <numeric>
#include <random>
#include <set>
#include <tuple>

#include "kernel/slab.h"
#include "kernel/wire/ip.h"
#include "tests/support/fake_device.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::bench {
namespace {

constexpr u32 seed = 20260701;
constexpr std::size_t payload_bytes = 10;

}  // namespace

std::vector<connection> make_connections(std::size_t count) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<u32> host(2, 201);
  std::uniform_int_distribution<u32> server(0x14000000, 0x5FFFFFFF);  // 20.0.0.0 to 95.255.255.255
  std::uniform_int_distribution<u16> port(32768, 60999);              // Linux's ephemeral ports
  std::set<std::tuple<u32, u32, u16>> seen;
  std::vector<connection> result;
  while (result.size() < count) {
    const connection c{.client = wire::htonl(0xC0A80100 + host(random)),
                       .server = wire::htonl(server(random)),
                       .client_port = wire::htons(port(random)),
                       .server_port = wire::htons(443)};
    if (seen.insert({c.client, c.server, c.client_port}).second) result.push_back(c);
  }
  return result;
}

test::bytes data_frame(const connection& c) {
  return test::packet()
      .eth(lan_mac, lan_host_mac)
      .ipv4(test::ip4_text(c.client), test::ip4_text(c.server))
      .tcp(wire::ntohs(c.client_port), wire::ntohs(c.server_port))
      .seq(1, 1)
      .payload(payload_bytes)
      .build();
}

shuffled_frames::shuffled_frames(const std::vector<frame_group>& groups) {
  std::vector<u32> order(groups.size());
  std::iota(order.begin(), order.end(), 0U);
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  for (const u32 group : order) {
    for (const test::bytes& frame : groups[group]) {
      frames_.push_back({bytes_.size(), frame.size()});
      bytes_.insert(bytes_.end(), frame.begin(), frame.end());
    }
  }
}

std::span<const u8> shuffled_frames::next() {
  const place& frame = frames_[next_];
  next_ = next_ + 1 == frames_.size() ? 0 : next_ + 1;
  return {bytes_.data() + frame.at, frame.length};
}

sk_buff* received(std::span<const u8> frame, net_device* dev) {
  const auto length = static_cast<u32>(frame.size());
  sk_buff* skb = alloc_skb(test::receive_headroom + length, GFP_ATOMIC);
  if (skb == nullptr) throw std::bad_alloc();
  skb_reserve(skb, test::receive_headroom);
  std::memcpy(skb_put(skb, length), frame.data(), frame.size());
  skb->dev = dev;
  skb->rx_dev = dev;
  return skb;
}

}  // namespace tarvelo::bench
