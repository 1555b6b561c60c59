// SPDX-License-Identifier: GPL-2.0-only
//
// The traffic that every row of the benchmarks carries: TCP connections of a LAN's hosts to servers
// all over the Internet, source-translated behind one public address, 64-byte frames, in random
// order. Everything comes from one fixed seed, so two runs see the same frames.
#pragma once

#include <array>
#include <vector>

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "kernel/types.h"

namespace tarvelo::bench {

inline constexpr std::size_t frame_bytes = 64;
using frame = std::array<u8, frame_bytes>;

inline constexpr char lan_mac[] = "02:00:00:00:01:01";
inline constexpr char lan_host_mac[] = "02:00:00:00:01:02";
inline constexpr char wan_mac[] = "02:00:00:00:02:01";
inline constexpr char wan_gateway_mac[] = "02:00:00:00:02:02";
inline constexpr char public_address[] = "203.0.113.9";
inline constexpr char wan_gateway[] = "203.0.113.1";

/// One connection as its client sees it; network byte order.
struct connection {
  u32 client;
  u32 server;
  u16 client_port;
  u16 server_port;
};

/// Different connections, as many as asked for.
[[nodiscard]] std::vector<connection> make_connections(std::size_t count);

/// A data segment from the client, 10 bytes of payload, as it comes in on the LAN.
[[nodiscard]] frame data_frame(const connection& c);

/// Hands out the frames of all connections, each as often as the others, in random order.
class shuffled_frames {
 public:
  explicit shuffled_frames(const std::vector<connection>& connections);
  [[nodiscard]] const frame& next();

 private:
  std::vector<frame> frames_;
  std::vector<u32> order_;
  std::size_t at_ = 0;
};

/// A buffer as a driver hands it up; the caller owns it.
[[nodiscard]] sk_buff* received(const frame& f, net_device* dev);

}  // namespace tarvelo::bench
