// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include "app/address_text.h"
#include "app/prefix_math.h"

namespace tarvelo::app {
namespace {

TEST(address_text, takes_the_documented_forms_and_nothing_else) {
  for (const char* text :
       {"192.168.1.1/24", "0.0.0.0/0", "10.0.0.1/32", "::/0", "2001:db8::1/64"}) {
    const auto prefix = parse_prefix(text);
    ASSERT_TRUE(prefix) << text;
    EXPECT_EQ(to_text(*prefix), text);
  }
  for (const char* text : {"", "/", "10.0.0.1", "10.0.0.1/", "10.0.0.1/33", "10.0.0.1/-1",
                           "10.0.0.1/08", "10.0.0.1/+8", "10.0.0.1/8 ", " 10.0.0.1/8", "10.0.0/8",
                           "10.0.0.256/8", "::1/129", ":::/0", "10.0.0.1/8/8"}) {
    EXPECT_FALSE(parse_prefix(text)) << text;
  }
  EXPECT_EQ(*parse_mac("02:Ab:00:00:01:fF"), (stack::mac_address{{2, 0xAB, 0, 0, 1, 0xFF}}));
  for (const char* text : {"", "02:00:00:00:01", "02-00-00-00-01-01", "02:00:00:00:01:0g",
                           "2:00:00:00:01:010", "02:00:00:00:01:01:", "02:00:00:00:01:-1"}) {
    EXPECT_FALSE(parse_mac(text)) << text;
  }
  const auto end = parse_endpoint("192.168.1.2:80");
  ASSERT_TRUE(end);
  EXPECT_EQ(end->port, 80);
  for (const char* text : {"192.168.1.2", "192.168.1.2:", "192.168.1.2:0", "192.168.1.2:65536",
                           "host:80", ":80", "192.168.1.2:80:80"}) {
    EXPECT_FALSE(parse_endpoint(text)) << text;
  }
}

struct containment_row {
  const char* prefix;
  const char* address;
  bool expected;
};

TEST(prefix_math, a_prefix_contains_what_agrees_in_its_bits) {
  const containment_row rows[] = {
      {"0.0.0.0/0", "255.255.255.255", true},
      {"10.1.2.3/8", "10.255.0.0", true},
      {"10.1.2.3/8", "11.0.0.0", false},
      {"192.168.1.128/25", "192.168.1.127", false},
      {"192.168.1.1/32", "192.168.1.1", true},
      {"192.168.1.1/31", "192.168.1.0", true},
      {"0.0.0.0/0", "::1", false},
      {"::/0", "2001:db8::1", true},
      {"2001:db8::/33", "2001:db8:8000::", false},
  };
  for (const containment_row& row : rows) {
    EXPECT_EQ(
        address_bits(*parse_prefix(row.prefix)).contains(address_bits(*parse_address(row.address))),
        row.expected)
        << row.prefix << " " << row.address;
  }
  EXPECT_EQ(to_text(address_bits(*parse_prefix("10.255.255.255/9")).network().to_prefix()),
            "10.128.0.0/9");
}

}  // namespace
}  // namespace tarvelo::app
