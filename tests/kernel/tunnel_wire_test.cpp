// SPDX-License-Identifier: GPL-2.0-only
// The headers of PPP, PPTP's GRE and L2TP, read from bytes written down by hand.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kernel/wire/gre.h"
#include "kernel/wire/l2tp.h"
#include "kernel/wire/ppp.h"

namespace {

TEST(tunnel_wire, reads_ppp_framing) {
  struct row {
    const char* what;
    std::vector<u8> frame;
    u32 length;
    u16 protocol;
  };
  const row rows[] = {
      {"all of it", {0xFF, 0x03, 0x00, 0x21, 0x45}, 4, 0x0021},
      {"compressed protocol", {0xFF, 0x03, 0x21, 0x45}, 3, 0x0021},
      {"no address and control", {0x00, 0x21, 0x45}, 2, 0x0021},
      {"one byte in all", {0x21, 0x45}, 1, 0x0021},
      {"two odd-ending bytes", {0xC0, 0x21, 0x01}, 2, 0xC021},
      {"compressed datagram", {0xFD, 0x90}, 1, 0x00FD},
      {"wrong control", {0xFF, 0x05, 0x00, 0x21}, 0, 0},
      {"nothing", {}, 0, 0},
      {"address alone", {0xFF}, 0, 0},
      {"address and control alone", {0xFF, 0x03}, 0, 0},
      {"half a protocol", {0xFF, 0x03, 0x00}, 0, 0},
      {"half a protocol without address", {0x00}, 0, 0},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.what);
    // From a block of its own size, so that reading on is seen by the sanitizer.
    const std::vector<u8> exact(r.frame);
    const wire::ppp_framing read =
        wire::read_ppp_framing(exact.data(), static_cast<u32>(exact.size()));
    EXPECT_EQ(read.length, r.length);
    EXPECT_EQ(read.protocol, r.protocol);
  }
}

TEST(tunnel_wire, writes_ppp_framing) {
  struct row {
    wire::ppp_omissions omit;
    std::vector<u8> bytes;
  };
  const row rows[] = {
      {{false, false}, {0xFF, 0x03, 0x00, 0x21}},
      {{false, true}, {0xFF, 0x03, 0x21}},
      {{true, false}, {0x00, 0x21}},
      {{true, true}, {0x21}},
  };
  for (const row& r : rows) {
    std::vector<u8> written(wire::ppp_framing_length(r.omit));
    wire::write_ppp_framing(written.data(), wire::ppp_protocol::ipv4, r.omit);
    EXPECT_EQ(written, r.bytes);
  }
}

wire::pptp_gre_hdr gre_of(const std::vector<u8>& bytes) {
  wire::pptp_gre_hdr header = {};
  std::memcpy(&header, bytes.data(), bytes.size());
  return header;
}

TEST(tunnel_wire, reads_the_numbers_of_a_gre_header) {
  const wire::pptp_gre_hdr both =
      gre_of({0x30, 0x81, 0x88, 0x0B, 0, 0x2C, 0, 9, 0, 0, 1, 2, 0x80, 0, 0, 3});
  EXPECT_EQ(both.length(), 16U);
  EXPECT_TRUE(both.is_pptp_data());
  EXPECT_EQ(both.call_id.host(), 9);
  EXPECT_EQ(both.payload_len.host(), 44);
  EXPECT_EQ(both.sequence(), 0x0102U);
  EXPECT_EQ(both.acknowledgement(), 0x80000003U);

  const wire::pptp_gre_hdr data = gre_of({0x30, 0x01, 0x88, 0x0B, 0, 0x29, 0, 9, 0, 0, 0, 7});
  EXPECT_EQ(data.length(), 12U);
  EXPECT_TRUE(data.is_pptp_data());
  EXPECT_FALSE(data.has_acknowledgement());

  const wire::pptp_gre_hdr ack_only = gre_of({0x20, 0x81, 0x88, 0x0B, 0, 0, 0, 9, 0, 0, 0, 7});
  EXPECT_EQ(ack_only.length(), 12U);
  EXPECT_FALSE(ack_only.is_pptp_data());
  EXPECT_FALSE(ack_only.has_sequence());
  EXPECT_EQ(ack_only.acknowledgement(), 7U);
}

TEST(tunnel_wire, tells_pptp_from_other_gre) {
  const std::vector<u8> good = {0x30, 0x01, 0x88, 0x0B, 0, 0x29, 0, 9, 0, 0, 0, 7};
  struct row {
    const char* what;
    std::size_t at;
    u8 value;
  };
  const row rows[] = {
      {"a checksum", 0, 0xB0}, {"routing", 0, 0x70},      {"a recursion level", 0, 0x31},
      {"no key", 0, 0x10},     {"version 0", 1, 0x00},    {"version 2", 1, 0x02},
      {"a flag", 1, 0x41},     {"another type", 2, 0x08},
  };
  for (const row& r : rows) {
    std::vector<u8> bytes = good;
    bytes[r.at] = r.value;
    EXPECT_FALSE(gre_of(bytes).is_pptp_data()) << r.what;
  }
}

TEST(tunnel_wire, measures_l2tp_headers_by_their_first_word) {
  struct row {
    u16 word;
    bool data;
    u32 length;
    u32 ids_at;
  };
  const row rows[] = {
      {0x0002, true, 6, 2},  {0x4002, true, 8, 4},  {0x0802, true, 10, 2}, {0x4802, true, 12, 4},
      {0x0202, false, 0, 0}, {0x0102, false, 0, 0}, {0x8002, false, 0, 0}, {0xC802, false, 0, 0},
      {0x0000, false, 0, 0}, {0x0003, true, 6, 2},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.word);
    ASSERT_EQ(wire::l2tp_is_data(r.word), r.data);
    if (!r.data) continue;
    EXPECT_EQ(wire::l2tp_header_length(r.word), r.length);
    EXPECT_EQ(wire::l2tp_ids_offset(r.word), r.ids_at);
  }
}

}  // namespace
