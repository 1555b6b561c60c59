// SPDX-License-Identifier: GPL-2.0-only
//
// The bridge cache as the bridges themselves report their hosts.
#include <algorithm>
#include <cstdio>

#include "kernel/if_bridge.h"
#include "module/brc/table.h"
#include "tests/module/ppp_scene.h"

namespace tarvelo::test {
namespace {

constexpr const char* host_address = "02:00:00:00:04:02";

class bridge_notify : public module_scene {
 protected:
  bridge_notify() {
    bridge->priv_flags |= IFF_EBRIDGE;
    br.dev = bridge;
    plain.br = &br;
    plain.dev = lan;
    tagged.br = &br;
    tagged.dev = vlan;
    plain.state = tagged.state = BR_STATE_FORWARDING;
    fdb.dst = &plain;
    const mac at = mac_of(host_address);
    std::copy(std::begin(at.at), std::end(at.at), fdb.addr);
  }

  void notify(int type, unsigned group = RTNLGRP_NEIGH) {
    in_softirq([&] { kcih->_br_brc_notify(kcih, group, type, &fdb); });
  }
  [[nodiscard]] static ::brc* cached() {
    return kcih->_vok_brc_lkup(kcih, mac_of(host_address).at);
  }
  /// The log with the module's line numbers, which are not promised, left out.
  [[nodiscard]] std::vector<std::string> messages() {
    auto lines = log.take_text();
    for (std::string& line : lines) {
      const std::size_t number = line.find(' ') + 1;
      line.erase(number, line.find(": ") - number);
    }
    return lines;
  }

  fake_device bridge{"br0", "02:00:00:00:04:01"};
  vlan_device vlan{"lan0.30", lan, 30};
  net_bridge br = {};
  net_bridge_port plain = {}, tagged = {};
  net_bridge_fdb_entry fdb = {};
};

TEST_F(bridge_notify, describes_plain_and_vlan_ports) {
  notify(RTM_NEWNEIGH);
  ::brc* known = cached();
  ASSERT_NE(known, nullptr);
  EXPECT_EQ(known->sendif, lan.get());
  EXPECT_EQ(known->vlan_dev, nullptr);
  EXPECT_EQ(known->VLANID, 0);
  EXPECT_EQ(known->tag_mode, static_cast<u8>(tag_mode::untag));
  EXPECT_EQ(known->bridgeID, bridge_id(bridge));
  EXPECT_EQ(known->refcnt, 1);

  // It moves behind the VLAN port: the same entry, another way.
  pass(10);
  known->portal = 3;
  fdb.dst = &tagged;
  notify(RTM_NEWNEIGH);
  EXPECT_EQ(cached(), known);
  EXPECT_EQ(known->sendif, lan.get());
  EXPECT_EQ(known->vlan_dev, static_cast<net_device*>(vlan));
  EXPECT_EQ(known->VLANID, 30);
  EXPECT_EQ(known->tag_mode, static_cast<u8>(tag_mode::tag));
  EXPECT_EQ(known->portal, 3);

  notify(RTM_DELNEIGH);
  EXPECT_EQ(cached(), nullptr);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(bridge_notify, leaves_tags_alone_without_reorder_header) {
  net_device* bare = vlan_dev_alloc("lan0.31", lan, 31, 0);
  ASSERT_EQ(register_netdevice(bare), 0);
  tagged.dev = bare;
  fdb.dst = &tagged;
  notify(RTM_NEWNEIGH);
  ASSERT_NE(cached(), nullptr);
  EXPECT_EQ(cached()->tag_mode, static_cast<u8>(tag_mode::untag));
  EXPECT_EQ(cached()->VLANID, 31);
  unregister_netdevice(bare);
}

TEST_F(bridge_notify, learns_on_forwarding_ports_only) {
  plain.state = BR_STATE_LEARNING;
  notify(RTM_NEWNEIGH);
  EXPECT_EQ(cached(), nullptr);
  plain.state = BR_STATE_FORWARDING;
  notify(RTM_NEWNEIGH);
  EXPECT_NE(cached(), nullptr);
  // A removal does not ask for the state.
  plain.state = BR_STATE_BLOCKING;
  notify(RTM_DELNEIGH);
  EXPECT_EQ(cached(), nullptr);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(bridge_notify, removes_the_entry_of_its_own_bridge) {
  fdb.dst = &tagged;
  notify(RTM_NEWNEIGH);
  ::brc elsewhere = *cached();
  elsewhere.bridgeID = static_cast<u16>(elsewhere.bridgeID + 1);
  ASSERT_EQ(_vok_brc_add(kcih, &elsewhere), 0);
  notify(RTM_DELNEIGH);
  ASSERT_NE(cached(), nullptr);
  EXPECT_EQ(cached()->bridgeID, elsewhere.bridgeID);
}

TEST_F(bridge_notify, refuses_and_says_so) {
  const auto refusal = [](int group, int type, int is_local) {
    char line[96];
    std::snprintf(line, sizeof line, "_br_brc_notify : group = %d, type = %d, fdb->is_local = %d\n",
                  group, type, is_local);
    return std::vector<std::string>{"_br_brc_notify : the bridge add fdb failed\n", line};
  };
  notify(RTM_NEWNEIGH, 2);
  EXPECT_EQ(messages(), refusal(2, 28, 0));
  fdb.is_local = true;
  notify(RTM_NEWNEIGH);
  EXPECT_EQ(messages(), refusal(3, 28, 1));
  fdb.dst = nullptr;
  notify(RTM_DELNEIGH);
  EXPECT_EQ(messages(), refusal(3, 29, 1));
  fdb.is_local = false;
  fdb.dst = &plain;
  plain.br = nullptr;
  notify(RTM_NEWNEIGH);
  EXPECT_EQ(messages(), refusal(3, 28, 0));
  plain.br = &br;
  in_softirq([&] { kcih->_br_brc_notify(nullptr, RTNLGRP_NEIGH, RTM_NEWNEIGH, &fdb); });
  EXPECT_EQ(messages(), refusal(3, 28, 0));
  notify(30);
  EXPECT_EQ(messages(), std::vector<std::string>{"_br_brc_notify : the type:30 is error\n"});
  EXPECT_EQ(cached(), nullptr);
}

}  // namespace
}  // namespace tarvelo::test
