// SPDX-License-Identifier: GPL-2.0-only
#include "ports/segmentation.h"

#include <gtest/gtest.h>

#include "tests/support/frame_match.h"
#include "tests/support/packet_builder.h"

namespace tarvelo::ports {
namespace {

using test::bytes;
using test::packet;

constexpr const char* router = "02:00:00:00:01:01";
constexpr const char* host = "02:00:00:00:01:02";
constexpr u8 tcp_cwr = 0x80;
constexpr u8 all_flags = wire::tcp_flag::fin | wire::tcp_flag::psh | wire::tcp_flag::ack | tcp_cwr;
constexpr u32 wide_mtu = 1500;

offload_header gso(u8 type, u16 size) {
  return {offload_flag::needs_csum, type, 0, size, 0, 0};
}

std::vector<bytes> cut(const bytes& frame, const offload_header& offload, u32 mtu,
                       link_layer link = link_layer::ethernet) {
  std::vector<bytes> frames;
  const auto plan = segmentation_plan::make(frame, offload, link, mtu);
  if (!plan) return frames;
  for (u32 i = 0; i < plan->count(); ++i) {
    bytes to(plan->length(i));
    plan->write(frame, i, to);
    frames.push_back(to);
  }
  return frames;
}

/// The payload from `at` on as the builder counts it up.
packet& with_payload(packet& p, std::size_t at, std::size_t length) {
  return p.payload(length, static_cast<u8>(at));
}

struct link_row {
  const char* name;
  packet headers;
  u8 type;
};

TEST(segmentation, cuts_tcp_into_the_frames_of_the_wire_behind_every_kind_of_header) {
  const bytes option(4, 1);
  const link_row rows[] = {
      {"plain", packet().eth(router, host).ipv4("192.168.1.2", "198.51.100.7"),
       offload_gso::tcp_ipv4},
      {"options", packet().eth(router, host).ipv4("192.168.1.2", "198.51.100.7").options(option),
       offload_gso::tcp_ipv4},
      {"tag", packet().eth(router, host).vlan(7, 5).ipv4("192.168.1.2", "198.51.100.7"),
       offload_gso::tcp_ipv4},
      {"pppoe", packet().eth(router, host).vlan(7).pppoe(4660).ipv4("10.0.0.1", "10.0.0.2"),
       offload_gso::tcp_ipv4},
      {"ipv6", packet().eth(router, host).ipv6("2001:db8::1", "2001:db8::2"),
       offload_gso::tcp_ipv6},
  };
  for (const link_row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto segment = [&](u16 id, std::size_t at, std::size_t length, u8 flags) {
      packet p = row.headers;
      if (row.type == offload_gso::tcp_ipv4) p.id(static_cast<u16>(0xFFFF + id));
      p.tcp(40000, 80).flags(flags).seq(static_cast<u32>(0xFFFFFF00 + at), 77);
      return with_payload(p, at, length);
    };
    packet super = segment(0, 0, 2500, all_flags);
    const auto frames = cut(super.partial_checksum().build(), gso(row.type, 1000), wide_mtu);
    ASSERT_EQ(frames.size(), 3U);
    const u8 ack = wire::tcp_flag::ack;
    EXPECT_FRAME_EQ(frames[0], segment(0, 0, 1000, ack | tcp_cwr).build());
    EXPECT_FRAME_EQ(frames[1], segment(1, 1000, 1000, ack).build());
    EXPECT_FRAME_EQ(frames[2],
                    segment(2, 2000, 500, ack | wire::tcp_flag::fin | wire::tcp_flag::psh).build());
  }
}

TEST(segmentation, cuts_udp_into_datagrams) {
  const auto datagram = [](u16 id, std::size_t at, std::size_t length) {
    packet p = packet().ipv4("10.0.0.1", "10.0.0.2").id(id).udp(5000, 5001);
    return with_payload(p, at, length).build();
  };
  const auto frames =
      cut(datagram(9, 0, 1201), gso(offload_gso::udp_l4, 600), wide_mtu, link_layer::raw_ip);
  ASSERT_EQ(frames.size(), 3U);
  const u16 ids[] = {9, 10, 11};
  const std::size_t lengths[] = {600, 600, 1};
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const bytes expected = datagram(ids[i], i * 600, lengths[i]);
    EXPECT_TRUE(test::same_frame("", "", frames[i], expected)) << i;
  }
}

TEST(segmentation, no_frame_exceeds_the_mtu) {
  const bytes tcp = packet()
                        .eth(router, host)
                        .vlan(7)
                        .ipv4("10.0.0.1", "10.0.0.2")
                        .tcp(1, 2)
                        .payload(3000)
                        .build();
  for (const bytes& frame : cut(tcp, gso(offload_gso::tcp_ipv4, 1460), 576)) {
    EXPECT_LE(frame.size(), 18U + 576U);
    EXPECT_TRUE(test::sound_frame(frame));
  }
  const auto largest = cut(tcp, gso(offload_gso::tcp_ipv4, 1460), 1500);
  EXPECT_EQ(largest.at(0).size(), 18U + 1500U);

  // A datagram's boundaries mean something: one that does not fit is not cut elsewhere.
  const bytes udp =
      packet().eth(router, host).ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).payload(3000).build();
  EXPECT_EQ(cut(udp, gso(offload_gso::udp_l4, 1472), 1500).size(), 3U);
  EXPECT_TRUE(cut(udp, gso(offload_gso::udp_l4, 1473), 1500).empty());
}

TEST(segmentation, refuses_what_does_not_hold_together) {
  const packet good =
      packet().eth(router, host).ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2).payload(2000);
  const bytes frame = good.build();
  const std::pair<const char*, std::pair<bytes, offload_header>> rows[] = {
      {"no segment size", {frame, gso(offload_gso::tcp_ipv4, 0)}},
      {"another family", {frame, gso(offload_gso::tcp_ipv6, 1000)}},
      {"another protocol", {frame, gso(offload_gso::udp_l4, 1000)}},
      {"old UDP fragmentation", {frame, gso(3, 1000)}},
      {"a fragment",
       {packet()
            .eth(router, host)
            .ipv4("10.0.0.1", "10.0.0.2")
            .fragment(8, true)
            .payload(2000)
            .build(),
        gso(offload_gso::tcp_ipv4, 1000)}},
      {"short TCP header", {packet(good).data_offset(4).build(), gso(offload_gso::tcp_ipv4, 1000)}},
      {"not IP",
       {packet().eth(router, host).type(0x0806).payload(2000).build(),
        gso(offload_gso::tcp_ipv4, 1000)}},
  };
  for (const auto& [name, row] : rows) {
    EXPECT_TRUE(cut(row.first, row.second, wide_mtu).empty()) << name;
  }
  // Every truncation down to nothing, headers cut anywhere.
  for (std::size_t length = 0; length < frame.size(); ++length) {
    const bytes shorter(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length));
    const bool has_payload = length > 54;
    EXPECT_EQ(cut(shorter, gso(offload_gso::tcp_ipv4, 1000), wide_mtu).empty(), !has_payload)
        << length;
  }
}

}  // namespace
}  // namespace tarvelo::ports
