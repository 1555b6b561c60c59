// SPDX-License-Identifier: GPL-2.0-only
#include <gtest/gtest.h>

#include <thread>

#include "kernel/context.h"
#include "kernel/errno.h"
#include "kernel/fast_path.h"
#include "kernel/fault.h"
#include "kernel/if_vlan.h"
#include "kernel/netdevice.h"
#include "kernel/ppp.h"
#include "kernel/rcupdate.h"

namespace {

int answer = NETDEV_TX_OK;

const net_device_ops operations{[](sk_buff* skb, net_device*) {
  if (answer == NETDEV_TX_OK) kfree_skb(skb);
  return answer;
}};

class Devices : public testing::Test {
 protected:
  Devices() : before_(fault::now()) {
    answer = NETDEV_TX_OK;
    dev_ = alloc_netdev("wan0", ARPHRD_ETHER);
    dev_->netdev_ops = &operations;
  }
  ~Devices() override {
    if (dev_ != nullptr) free_netdev(dev_);
    rcu_barrier();
    EXPECT_EQ(fault::now(), before_);
  }

  sk_buff* frame() {
    sk_buff* skb = alloc_skb(100, GFP_ATOMIC);
    skb_put(skb, 60);
    skb->dev = dev_;
    return skb;
  }

  fault::outstanding before_;
  net_device* dev_;
};

TEST_F(Devices, AreFoundWhileTheyAreRegistered) {
  net_device* twin = alloc_netdev("wan0", ARPHRD_ETHER);
  net_device* long_name = alloc_netdev("a-name-of-more-than-15", ARPHRD_PPP);
  ASSERT_EQ(register_netdevice(dev_), 0);
  EXPECT_EQ(register_netdevice(twin), -EEXIST);
  ASSERT_EQ(register_netdevice(long_name), 0);
  EXPECT_GT(dev_->ifindex, 0);
  EXPECT_GT(long_name->ifindex, dev_->ifindex);
  {
    const hosted::softirq_scope softirq;
    EXPECT_EQ(dev_get_by_name_rcu("wan0"), dev_);
    EXPECT_EQ(dev_get_by_name_rcu("a-name-of-more-"), long_name);
    EXPECT_EQ(dev_get_by_index_rcu(dev_->ifindex), dev_);
    EXPECT_EQ(dev_get_by_index_rcu(0), nullptr);
  }
  free_netdev(twin);
  unregister_netdevice(long_name);
  dev_hold(dev_);
  unregister_netdevice(dev_);
  rcu_barrier();
  EXPECT_EQ(dev_get_by_name_rcu("wan0"), nullptr);
  EXPECT_STREQ(dev_->name, "wan0") << "whoever holds it may still use it";
  dev_put(dev_);
  dev_ = nullptr;
}

TEST_F(Devices, SendingTakesTheBufferOrLeavesIt) {
  sk_buff* skb = frame();
  EXPECT_EQ(km_fast_xmit_skb(skb), -ENETDOWN) << "the device is down";
  EXPECT_EQ(dev_queue_xmit(skb), -ENETDOWN);  // takes it all the same
  dev_open(dev_);
  EXPECT_EQ(km_fast_xmit_skb(frame()), 0);
  EXPECT_EQ(dev_queue_xmit(frame()), 0);
  answer = -EBUSY;
  skb = frame();
  EXPECT_EQ(km_fast_xmit_skb(skb), -EBUSY);
  EXPECT_EQ(dev_queue_xmit(skb), -EBUSY);
  const rtnl_link_stats64 stats = dev_stats(dev_);
  EXPECT_EQ(stats.tx_packets, 2U);
  EXPECT_EQ(stats.tx_bytes, 120U);
  EXPECT_EQ(stats.tx_dropped, 2U);
}

TEST_F(Devices, CountersOfAllProcessorsAreSummed) {
  for (unsigned cpu = 0; cpu < 3; ++cpu) {
    std::thread([this, cpu] {
      hosted::set_processor(cpu);
      for (int i = 0; i < 1000; ++i)
        dev_count_rx(dev_, 10);
      dev_count_rx_dropped(dev_);
    }).join();
  }
  const rtnl_link_stats64 stats = dev_stats(dev_);
  EXPECT_EQ(stats.rx_packets, 3000U);
  EXPECT_EQ(stats.rx_bytes, 30000U);
  EXPECT_EQ(stats.rx_dropped, 3U);
}

TEST_F(Devices, AVlanDeviceHoldsTheOneBelow) {
  dev_->mtu = 1400;
  net_device* vlan = vlan_dev_alloc("wan0.7", dev_, 7, VLAN_FLAG_REORDER_HDR);
  EXPECT_TRUE(is_vlan_dev(vlan));
  EXPECT_FALSE(is_vlan_dev(dev_));
  EXPECT_EQ(vlan_dev_real_dev(vlan), dev_);
  EXPECT_EQ(vlan_dev_vlan_id(vlan), 7);
  EXPECT_EQ(vlan_dev_flags(vlan), VLAN_FLAG_REORDER_HDR);
  EXPECT_EQ(vlan->mtu, 1400U);
  free_netdev(dev_);
  EXPECT_STREQ(vlan_dev_real_dev(vlan)->name, "wan0");
  free_netdev(vlan);  // and with it the one below
  dev_ = nullptr;
}

TEST_F(Devices, APppInterfaceTellsOfItsChannel) {
  ppp_conn_info info{};
  EXPECT_EQ(ppp_get_conn_pkt_info(dev_, &info), -ENODEV);
  ppp_conn_info channel{};
  channel.sid = 0x3412;
  ASSERT_EQ(ppp_attach_channel(dev_, &channel), 0);
  channel.sid = 0x7856;
  ASSERT_EQ(ppp_attach_channel(dev_, &channel), 0) << "replaces the first";
  EXPECT_EQ(ppp_get_conn_pkt_info(dev_, &info), 0);
  EXPECT_EQ(info.sid, 0x7856);
  ppp_detach_channel(dev_);
  EXPECT_EQ(ppp_get_conn_pkt_info(dev_, &info), -ENODEV);
}

}  // namespace
