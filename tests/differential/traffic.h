// SPDX-License-Identifier: GPL-2.0-only
//
// Traffic drawn by lot for a network: connections between its hosts, some of them translated, all
// of them at the same time, and frames that cross the bridge. A connection first becomes ripe for
// the fast path; then all that can be about a packet is mixed into it. The same seed gives the same
// frames.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "tests/differential/changes.h"
#include "tests/differential/network.h"

namespace tarvelo::test {

struct step {
  u32 at;  ///< milliseconds since the first
  const far_end* by;
  bytes frame;
  u32 flow;
  unsigned direction;
  u32 datagram;  ///< fragments have it in common
  peculiarity what;
};

/// One direction of a flow, as its packets come in.
struct flow_side {
  const far_end* from;
  const far_end* to;
  std::string source, destination;
  u16 source_port, destination_port;
  u32 sequence;
};

struct flow {
  bool bridged, ipv6, tcp;
  flow_side side[2];
  unsigned sent, packets;    ///< so far, and in all
  bool half_closed;          ///< and not at its end yet
  std::deque<step> waiting;  ///< the rest of a fragmented datagram

  /// In something that must not last.
  [[nodiscard]] bool is_halfway() const {
    return (half_closed && sent < packets) || !waiting.empty();
  }
  [[nodiscard]] std::string name() const;
};

struct traffic {
  /// `count` connections.
  traffic(u32 seed, unsigned count);
  traffic(const traffic&) = delete;
  traffic& operator=(const traffic&) = delete;

  small_random random;
  network net{random};
  std::vector<flow> flows;
  std::vector<step> steps;

 private:
  void add_flow();
  void add_bridged_flow();
  void introduce_hosts();
  void send(u32 flow_number);
  [[nodiscard]] packet begin(const flow& f, const flow_side& s);
  [[nodiscard]] static packet& add_transport(packet& p, const flow& f, unsigned direction,
                                             bool translated);
  static void make_sum_zero(bytes& payload, const flow& f, unsigned direction);
  void come_in(u32 flow_number, unsigned direction, const bytes& inner, peculiarity what);
  void send_packet(u32 flow_number, unsigned direction);
  void send_bridged(u32 flow_number, unsigned direction);
  [[nodiscard]] peculiarity make_peculiar(flow& f, const flow_side& s, packet& p);
  void send_fragments(u32 flow_number, unsigned direction);
  void send_waiting(flow& f);
  [[nodiscard]] u32 payload_for(const flow& f, const flow_side& s);

  u32 now_ = 0;
  u32 datagrams_ = 0;
};

}  // namespace tarvelo::test
