// SPDX-License-Identifier: GPL-2.0-only
//
// The traffic that the rows of the benchmarks carry: connections of a LAN's hosts to servers all
// over the Internet, in random order; TCP behind source NAT in 64-byte frames, where a row does not
// say otherwise. Everything comes from one fixed seed, so two runs see the same frames.
#pragma once

#include <span>
#include <vector>

#include "kernel/nf_conntrack.h"
#include "kernel/skbuff.h"
#include "kernel/types.h"
#include "tests/support/net_text.h"

namespace tarvelo::bench {

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
[[nodiscard]] test::bytes data_frame(const connection& c);

/// The frames in which one packet of a connection comes: more than one when it is in fragments.
using frame_group = std::vector<test::bytes>;

/// Hands out the groups, each as often as the others, in random order; the frames of a group stay
/// together and in order.
class shuffled_frames {
 public:
  explicit shuffled_frames(const std::vector<frame_group>& groups);
  [[nodiscard]] std::span<const u8> next();

 private:
  struct place {
    std::size_t at;
    std::size_t length;
  };

  std::vector<u8> bytes_;  ///< all frames, one behind the other in the order they are handed out
  std::vector<place> frames_;
  std::size_t next_ = 0;
};

/// A buffer as a driver hands it up; the caller owns it.
[[nodiscard]] sk_buff* received(std::span<const u8> frame, net_device* dev);

}  // namespace tarvelo::bench
