// SPDX-License-Identifier: GPL-2.0-only
// Finding the VLAN device of a tagged frame.
#include "kernel/vlan_table.h"

#include <memory>

#include "kernel/errno.h"
#include "tests/support/fake_device.h"
#include "tests/support/kernel_fixture.h"

namespace {

using tarvelo::test::fake_device;
using tarvelo::test::in_softirq;

struct netdev_deleter {
  void operator()(net_device* dev) const { free_netdev(dev); }
};
using vlan_device = std::unique_ptr<net_device, netdev_deleter>;

class vlan_table_test : public tarvelo::test::kernel_test {
 protected:
  static vlan_device make(net_device* real_dev, u16 vid) {
    return vlan_device(vlan_dev_alloc("vlan", real_dev, vid, VLAN_FLAG_REORDER_HDR));
  }
  static net_device* find(const net_device* real_dev, u16 vid) {
    return in_softirq([&] { return vlan_find_dev(real_dev, vid); });
  }

  fake_device lan0{"lan0"};
  fake_device lan1{"lan1"};
};

TEST_F(vlan_table_test, finds_by_device_and_id) {
  // 7 and 263 share a bucket.
  const vlan_device a = make(lan0, 7);
  const vlan_device b = make(lan0, 263);
  const vlan_device c = make(lan1, 7);
  const vlan_device same = make(lan0, 7);
  for (net_device* dev : {a.get(), b.get(), c.get()})
    ASSERT_EQ(vlan_table_add(dev), 0);
  EXPECT_EQ(vlan_table_add(same.get()), -EEXIST);
  vlan_table_remove(same.get());

  EXPECT_EQ(find(lan0, 7), a.get());
  EXPECT_EQ(find(lan0, 263), b.get());
  EXPECT_EQ(find(lan1, 7), c.get());
  EXPECT_EQ(find(lan1, 263), nullptr);
  EXPECT_EQ(find(lan0, 0), nullptr);

  vlan_table_remove(b.get());
  EXPECT_EQ(find(lan0, 263), nullptr);
  EXPECT_EQ(find(lan0, 7), a.get());
  vlan_table_remove(a.get());
  EXPECT_EQ(find(lan0, 7), nullptr);
  EXPECT_EQ(find(lan1, 7), c.get());
  EXPECT_EQ(vlan_table_add(same.get()), 0) << "the place is free again";
  vlan_table_remove(same.get());
  vlan_table_remove(c.get());
}

TEST_F(vlan_table_test, refuses_what_is_no_vlan) {
  for (const u16 vid : {u16{0}, u16{4095}}) {
    const vlan_device dev = make(lan0, vid);
    EXPECT_EQ(vlan_table_add(dev.get()), -EINVAL) << vid;
  }
  for (const u16 vid : {u16{1}, u16{4094}}) {
    const vlan_device dev = make(lan0, vid);
    EXPECT_EQ(vlan_table_add(dev.get()), 0) << vid;
    EXPECT_EQ(find(lan0, vid), dev.get());
    vlan_table_remove(dev.get());
  }
}

TEST_F(vlan_table_test, without_memory_a_device_is_not_found) {
  const vlan_device dev = make(lan0, 7);
  fault::fail_allocation(1);
  EXPECT_EQ(vlan_table_add(dev.get()), -ENOMEM);
  EXPECT_EQ(find(lan0, 7), nullptr);
}

}  // namespace
