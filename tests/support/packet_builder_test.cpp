// SPDX-License-Identifier: GPL-2.0-only
#include "tests/support/packet_builder.h"

#include <gtest/gtest.h>

#include "tests/support/frame_match.h"
#include "tests/support/naive_checksum.h"

namespace tarvelo::test {
namespace {

packet base() {
  return packet().eth("02:00:00:00:01:01", "02:00:00:00:01:02");
}

// Frames worked out by hand (checksums too), so that the builder is not its own judge.
TEST(packet_builder, builds_the_bytes_that_were_worked_out_by_hand) {
  EXPECT_FRAME_EQ(base().ipv4("192.168.1.2", "198.51.100.7").id(1).tcp(40000, 80).seq(1, 2).build(),
                  from_hex("020000000101 020000000102 0800"
                           "4500 0028 0001 0000 4006 8EEA C0A80102 C6336407"
                           "9C40 0050 00000001 00000002 5010 2000 075C 0000"));
  EXPECT_FRAME_EQ(
      base().vlan(7, 5).pppoe(0x1234).ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).payload("A").build(),
      from_hex("020000000101 020000000102 8100 A007 8864"
               "1100 1234 001F 0021"
               "4500 001D 0000 0000 4011 66CE 0A000001 0A000002"
               "0001 0002 0009 AAD6 41"));
  EXPECT_FRAME_EQ(base()
                      .arp(wire::arp_op::request, "02:00:00:00:01:02", "192.168.1.2",
                           "00:00:00:00:00:00", "192.168.1.1")
                      .pad_to(60)
                      .build(),
                  from_hex("020000000101 020000000102 0806"
                           "0001 0800 06 04 0001 020000000102 C0A80102 000000000000 C0A80101"
                           "0000 0000 0000 0000 0000 0000 0000 0000 0000"));
  EXPECT_FRAME_EQ(packet().ipv4("10.0.0.1", "10.0.0.2").icmp(8, 0, 1, 2).build(),
                  from_hex("4500 001C 0000 0000 4001 66DF 0A000001 0A000002"
                           "0800 F7FC 0001 0002"));
}

// Encapsulated packets: the lengths that the two kinds of tunnels must have for 40 bytes inside.
TEST(packet_builder, fills_in_the_lengths_of_tunnels) {
  const auto inner = [](packet outer) {
    return outer.ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2).build();
  };
  const packet gre = base().ipv4("203.0.113.9", "198.51.100.8").gre(9, 0, 0).ppp();
  const bytes pptp = inner(gre);
  EXPECT_EQ(pptp.size(), 94);
  EXPECT_EQ(bytes(pptp.begin() + 34, pptp.begin() + 42), from_hex("3081 880B 002C 0009"));
  EXPECT_EQ(ipv4_of(pptp).tot_len.host(), 80);
  EXPECT_EQ(ipv4_of(pptp).protocol, wire::ip_protocol::gre);

  const packet session =
      base().ipv4("203.0.113.9", "198.51.100.7").udp(1701, 1701).l2tp(0x4802, 20, 40, 7).ppp();
  const bytes l2tp = inner(session);
  EXPECT_EQ(bytes(l2tp.begin() + 42, l2tp.begin() + 54), from_hex("4802 0038 0014 0028 0007 0000"));
  EXPECT_EQ(udp_of(l2tp).len.host(), 64);
  EXPECT_EQ(faults_of(l2tp), "");
}

// RFC 1071's own example, and an odd last byte.
TEST(naive_checksum, follows_the_standard) {
  EXPECT_EQ(naive_sum().add(from_hex("0001 F203 F4F5 F6F7")).checksum(), 0x220D);
  EXPECT_EQ(naive_sum().add(from_hex("01")).checksum(), 0xFEFF);
}

TEST(packet_decoder, finds_every_single_bit_that_is_wrong_in_headers_with_a_checksum) {
  const bytes frame =
      base().ipv4("192.168.1.2", "198.51.100.7").udp(5000, 6000).payload(11).build();
  ASSERT_EQ(faults_of(frame), "");
  for (std::size_t at = wire::ethernet_length; at < frame.size(); ++at) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      bytes broken = frame;
      broken[at] = static_cast<u8>(broken[at] ^ 1U << bit);
      EXPECT_NE(faults_of(broken), "") << "byte " << at << " bit " << bit;
    }
  }
}

TEST(packet_decoder, reads_any_prefix_of_a_frame) {
  const bytes frame = base().vlan(7).pppoe(1).ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2).build();
  for (std::size_t length = 0; length < frame.size(); ++length) {
    const auto prefix = std::span(frame).first(length);
    EXPECT_NE(faults_of(prefix), "") << length;
    EXPECT_NE(describe(prefix), "");
  }
  EXPECT_EQ(faults_of(frame), "");
}

TEST(packet_decoder, names_what_a_test_has_broken) {
  const packet good = base().ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2).payload(4);
  struct row {
    bytes frame;
    const char* complaint;
  };
  const row rows[] = {
      {packet(good).ip_checksum(0x1111).build(), "IPv4 checksum is 0x1111, should be 0x66CA"},
      {packet(good).l4_checksum(0).build(), "TCP checksum is 0x0000, should be 0x79C7"},
      {packet(good).total_length(45).build(), "IPv4 length is 45, there are 44 bytes"},
      {packet(good).version_ihl(0x4F).build(), "IPv4 header length is 60"},
      {packet(good).partial_checksum().build(), "TCP checksum is 0x1421, should be 0x79C7"},
  };
  for (const row& r : rows)
    EXPECT_EQ(faults_of(r.frame), r.complaint);
  EXPECT_EQ(payload_of(good.build()), (bytes{0, 1, 2, 3}));
}

TEST(packet_decoder, describes_a_frame_in_one_line) {
  EXPECT_EQ(describe(base()
                         .vlan(7, 5)
                         .ipv4("192.168.1.2", "198.51.100.7")
                         .id(9)
                         .dont_fragment()
                         .tcp(40000, 80)
                         .flags(wire::tcp_flag::syn | wire::tcp_flag::ack)
                         .build()),
            "02:00:00:00:01:02→02:00:00:00:01:01 vlan 7 priority 5 ipv4 192.168.1.2→198.51.100.7 "
            "ttl 64 id 9 DF tcp 40000→80 [SA] seq 0 ack 0, 58 bytes");
}

}  // namespace
}  // namespace tarvelo::test
