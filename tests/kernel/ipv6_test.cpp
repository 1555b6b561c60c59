// SPDX-License-Identifier: GPL-2.0-only
//
// IPv6 routes and kinds of addresses. What the table does with prefixes of any length is tested
// with the IPv4 routes, which share it.
#include "kernel/ipv6.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "kernel/context.h"
#include "kernel/errno.h"
#include "kernel/fault.h"
#include "kernel/route6.h"

namespace {

wire::in6_addr ip6(const char* text) {
  wire::in6_addr address;
  EXPECT_EQ(inet_pton(AF_INET6, text, &address), 1) << text;
  return address;
}

TEST(Ipv6Address, HasAType) {
  const struct {
    const char* address;
    int type;
  } rows[] = {{"::", IPV6_ADDR_ANY},
              {"::1", IPV6_ADDR_UNICAST | IPV6_ADDR_LOOPBACK},
              {"::2", IPV6_ADDR_UNICAST | IPV6_ADDR_COMPATv4},
              {"::192.0.2.1", IPV6_ADDR_UNICAST | IPV6_ADDR_COMPATv4},
              {"::ffff:192.0.2.1", IPV6_ADDR_MAPPED},
              {"::1:0:0:1", IPV6_ADDR_UNICAST},
              {"2001:db8::1", IPV6_ADDR_UNICAST},
              {"fc00::1", IPV6_ADDR_UNICAST},
              {"fe7f:ffff::1", IPV6_ADDR_UNICAST},
              {"fe80::1", IPV6_ADDR_UNICAST | IPV6_ADDR_LINKLOCAL},
              {"febf:ffff::1", IPV6_ADDR_UNICAST | IPV6_ADDR_LINKLOCAL},
              {"fec0::1", IPV6_ADDR_UNICAST | IPV6_ADDR_SITELOCAL},
              {"ff01::1", IPV6_ADDR_MULTICAST | IPV6_ADDR_LOOPBACK},
              {"ff02::1:ff00:1", IPV6_ADDR_MULTICAST | IPV6_ADDR_LINKLOCAL},
              {"ff12::1", IPV6_ADDR_MULTICAST | IPV6_ADDR_LINKLOCAL},
              {"ff05::2", IPV6_ADDR_MULTICAST | IPV6_ADDR_SITELOCAL},
              {"ff0e::1", IPV6_ADDR_MULTICAST}};
  for (const auto& row : rows) {
    const wire::in6_addr address = ip6(row.address);
    EXPECT_EQ(__ipv6_addr_type(&address) & 0xFFFF, row.type) << row.address;
  }
}

class Routes6 : public testing::Test {
 protected:
  Routes6() : before_(fault::now()) {
    lan_ = alloc_netdev("lan0", ARPHRD_ETHER);
    wan_ = alloc_netdev("wan0", ARPHRD_ETHER);
  }
  ~Routes6() override {
    ip6_route_flush(nullptr);
    rcu_barrier();
    free_netdev(lan_);
    free_netdev(wan_);
    EXPECT_EQ(fault::now(), before_);
  }

  static int add(const char* prefix, u8 length, rt_class type, net_device* dev,
                 const char* gateway = "::") {
    const wire::in6_addr to = ip6(prefix);
    const wire::in6_addr via = ip6(gateway);
    return ip6_route_add(&to, length, type, &via, dev);
  }
  static rt6_info* output(const char* destination) {
    const flowi6 flow{{}, ip6(destination), 0};
    rt6_info* rt = ip6_route_output(&flow);
    if (rt != nullptr) dst_release(&rt->dst);
    return rt;
  }

  fault::outstanding before_;
  net_device* lan_;
  net_device* wan_;
};

TEST_F(Routes6, LongestPrefixWinsAndNamesItsNextHop) {
  EXPECT_EQ(output("2001:db8::1"), nullptr);
  ASSERT_EQ(add("::", 0, RTN_UNICAST, wan_, "2001:db8:9::1"), 0);
  ASSERT_EQ(add("2001:db8:1::", 64, RTN_UNICAST, lan_), 0);
  ASSERT_EQ(add("2001:db8:1::1", 128, RTN_LOCAL, lan_), 0);
  ASSERT_EQ(add("2001:db8::", 32, RTN_UNREACHABLE, nullptr), 0);
  const struct {
    const char* address;
    u8 prefix_length;
    const char* next_hop;
    int (*input)(sk_buff*);
  } rows[] = {{"2620::1", 0, "2001:db8:9::1", ip6_forward},
              {"2001:db8:1::2", 64, "2001:db8:1::2", ip6_forward},
              {"2001:db8:1::1", 128, "2001:db8:1::1", ip6_input},
              {"2001:db8:2::1", 32, "2001:db8:2::1", nullptr}};
  for (const auto& row : rows) {
    const rt6_info* rt = output(row.address);
    ASSERT_NE(rt, nullptr) << row.address;
    EXPECT_EQ(rt->prefix_length, row.prefix_length) << row.address;
    const wire::in6_addr destination = ip6(row.address);
    EXPECT_EQ(*rt6_nexthop(rt, &destination), ip6(row.next_hop)) << row.address;
    if (row.input != nullptr) {
      EXPECT_EQ(rt->dst.input, row.input) << row.address;
    }
  }
}

/// A point-to-point device has no next hops to tell apart.
TEST_F(Routes6, NeedNoAddressOnAPointToPointDevice) {
  wan_->flags |= IFF_POINTOPOINT;
  ASSERT_EQ(add("::", 0, RTN_UNICAST, wan_, "fe80::1"), 0);
  const wire::in6_addr destination = ip6("2001:db8::1");
  EXPECT_EQ(*rt6_nexthop(output("2001:db8::1"), &destination), ip6("::"));
}

TEST_F(Routes6, RefusesWhatIsNoPrefixOrIsThere) {
  EXPECT_EQ(add("2001:db8::1", 127, RTN_UNICAST, lan_), -EINVAL);
  EXPECT_EQ(add("2001:db8::", 129, RTN_UNICAST, lan_), -EINVAL);
  EXPECT_EQ(add("2001:db8::1", 128, RTN_UNICAST, lan_), 0);
  EXPECT_EQ(add("2001:db8::1", 128, RTN_UNICAST, wan_), -EEXIST);
  const wire::in6_addr host = ip6("2001:db8::1");
  EXPECT_EQ(ip6_route_del(&host, 127), -ESRCH);
  EXPECT_EQ(ip6_route_del(&host, 128), 0);
  EXPECT_EQ(output("2001:db8::1"), nullptr);
}

TEST_F(Routes6, GoWithTheirDeviceAndOutliveTheTable) {
  ASSERT_EQ(add("2001:db8:1::", 64, RTN_UNICAST, lan_), 0);
  ASSERT_EQ(add("2001:db8:2::", 64, RTN_UNICAST, wan_), 0);
  sk_buff* skb = alloc_skb(64, GFP_KERNEL);
  const wire::in6_addr destination = ip6("2001:db8:1::2");
  {
    const hosted::softirq_scope scope(code_place::here());
    ASSERT_EQ(ip6_route_input(skb, &destination), 0);
    skb_dst_force(skb);
  }
  ip6_route_flush(lan_);
  EXPECT_EQ(output("2001:db8:1::2"), nullptr);
  EXPECT_NE(output("2001:db8:2::2"), nullptr);
  EXPECT_EQ(skb_dst(skb)->dev, lan_);
  kfree_skb(skb);
}

}  // namespace
