// SPDX-License-Identifier: GPL-2.0-only
//
// The rival on the same frames: a standard hash table, and checksums summed up anew.
#include <cstring>
#include <unordered_map>

#include "bench/subject.h"
#include "kernel/wire/ethernet.h"
#include "kernel/wire/ip.h"
#include "kernel/wire/transport.h"
#include "tests/support/fake_device.h"
#include "tests/support/naive_checksum.h"

namespace tarvelo::bench {
namespace {

struct key {
  u32 source;
  u32 destination;
  u16 source_port;
  u16 destination_port;
  u8 protocol;

  friend bool operator==(const key&, const key&) = default;
};

struct key_hash {
  std::size_t operator()(const key& k) const {
    std::size_t h = std::hash<u64>()(static_cast<u64>(k.source) << 32 | k.destination);
    h = h * 31 + std::hash<u32>()(static_cast<u32>(k.source_port) << 16 | k.destination_port);
    return h * 31 + k.protocol;
  }
};

struct translation {
  u32 address;
  u16 port;
  test::mac destination;
  test::mac source;
};

struct headers {
  wire::ethhdr eth;
  wire::iphdr ip;
  wire::tcphdr tcp;
};

class naive_subject final : public subject {
 public:
  explicit naive_subject(const std::vector<connection>& connections) {
    u16 port = 1024;
    for (const connection& c : connections) {
      table_[{c.client, c.server, c.client_port, c.server_port, wire::ip_protocol::tcp}] = {
          test::ip4(public_address), wire::htons(port++), test::mac_of(wan_gateway_mac),
          test::mac_of(wan_mac)};
    }
  }

  [[nodiscard]] net_device* input() const override { return lan_; }

  void run(std::span<sk_buff* const> batch) override {
    for (sk_buff* skb : batch) {
      forward(skb);
      kfree_skb(skb);
    }
  }

 private:
  void forward(sk_buff* skb) {
    if (skb->len < sizeof(headers)) wrong("a frame is too short");
    headers h;
    std::memcpy(&h, skb->data, sizeof h);
    const auto found = table_.find(
        {h.ip.saddr.raw(), h.ip.daddr.raw(), h.tcp.source.raw(), h.tcp.dest.raw(), h.ip.protocol});
    if (found == table_.end()) wrong("a connection is not found");
    const translation& t = found->second;
    std::memcpy(h.eth.h_dest, t.destination.at, wire::mac_length);
    std::memcpy(h.eth.h_source, t.source.at, wire::mac_length);
    h.ip.saddr = wire::be32::from_raw(t.address);
    h.tcp.source = wire::be16::from_raw(t.port);
    h.ip.check = {};
    h.tcp.check = {};
    std::memcpy(skb->data, &h, sizeof h);
    u8* ip = skb->data + wire::ethernet_length;
    u8* tcp = ip + wire::ipv4_min_length;
    const u32 segment = h.ip.tot_len.host() - wire::ipv4_min_length;
    constexpr std::size_t addresses = offsetof(wire::iphdr, saddr);
    h.ip.check = wire::be16(test::naive_sum().add({ip, wire::ipv4_min_length}).checksum());
    h.tcp.check =
        wire::be16(test::pseudo_header({ip + addresses, 8}, wire::ip_protocol::tcp, segment)
                       .add({tcp, segment})
                       .checksum());
    std::memcpy(skb->data, &h, sizeof h);
  }

  test::fake_device lan_{"lan0", lan_mac};
  std::unordered_map<key, translation, key_hash> table_;
};

}  // namespace

std::unique_ptr<subject> make_naive(const std::vector<connection>& connections) {
  return std::make_unique<naive_subject>(connections);
}

}  // namespace tarvelo::bench
