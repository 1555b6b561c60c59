// SPDX-License-Identifier: GPL-2.0-only
//
// What the two paths may make of the same frames. The fast path
//
//   leaves the hop count of what it routes alone, where the stack takes one off, and so the IPv4
//     header checksum differs;
//   carries along what stands behind a packet in its frame, which the stack cuts off, and counts
//     it in the lengths of the headers that it puts in front;
//   sends the fragments of an IPv4 datagram as they come, which the stack puts together and cuts
//     anew;
//
// and nothing else. Frames that it has handed back, and frames that are bridged, must leave alike.
#pragma once

#include <string>
#include <vector>

#include "tests/support/packet_decoder.h"

namespace tarvelo::test {

struct sent_by_port {
  std::string port;
  link kind;
  bytes frame;

  friend bool operator==(const sent_by_port&, const sent_by_port&) = default;
};

/// What the fast path has routed as the stack would have sent it.
[[nodiscard]] std::vector<sent_by_port> as_by_stack(std::vector<sent_by_port> routed);

/// The identification of the router's ICMP errors is 0: it counts them.
[[nodiscard]] std::vector<sent_by_port> without_own_numbers(std::vector<sent_by_port> sent);

/// Fragments of IPv4 datagrams put together.
[[nodiscard]] std::vector<sent_by_port> without_fragments(const std::vector<sent_by_port>& sent);

}  // namespace tarvelo::test
