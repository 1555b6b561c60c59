// SPDX-License-Identifier: GPL-2.0-only
#include "module/brc/table.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

class bridge_cache : public module_scene {
 protected:
  [[nodiscard]] ::brc entry(const char* address, u16 bridge, u16 vid = 0) {
    ::brc e = {};
    const mac at = mac_of(address);
    std::copy(std::begin(at.at), std::end(at.at), e.dmac);
    e.bridgeID = bridge;
    e.VLANID = vid;
    e.sendif = lan;
    e.tag_mode = static_cast<u8>(tag_mode::untag);
    return e;
  }
  [[nodiscard]] static ::brc* find(const char* address) {
    return kcih->_vok_brc_lkup(kcih, mac_of(address).at);
  }
  [[nodiscard]] static ::brc* find(const char* address, u32 bridge) {
    return kcih->_vok_brc_lkup_brid(kcih, mac_of(address).at, bridge);
  }

  static constexpr const char* host = "02:00:00:00:00:10";
};

TEST_F(bridge_cache, finds_by_mac_and_by_bridge) {
  // The first byte is not part of the sum; the others sum to 128, that is to bucket 0.
  const char* one = "02:20:20:20:10:10";
  const char* other = "06:20:20:20:10:10";
  const ::brc first = entry(one, 3), second = entry(other, 3);
  ASSERT_EQ(_vok_brc_add(kcih, &first), 0);
  ASSERT_EQ(_vok_brc_add(kcih, &second), 0);
  EXPECT_NE(kcih->brc[0], nullptr);
  ASSERT_NE(find(one), nullptr);
  ASSERT_NE(find(other), nullptr);
  EXPECT_NE(find(one), find(other));
  EXPECT_EQ(find(one, 3), find(one));
  EXPECT_EQ(find(one, 4), nullptr);
  EXPECT_EQ(find(one, 0x10003), nullptr);
  EXPECT_EQ(find("02:20:20:20:10:11"), nullptr);
  EXPECT_EQ(kcih->_vok_brc_lkup(nullptr, first.dmac), nullptr);
}

TEST_F(bridge_cache, adds_a_key_once) {
  const ::brc wanted = entry(host, 3);
  pass(5);
  EXPECT_EQ(_vok_brc_add(kcih, &wanted), 0);
  EXPECT_EQ(find(host)->refcnt, 1);
  EXPECT_EQ(find(host)->add_time, u32{jiffies});
  EXPECT_EQ(_vok_brc_add(kcih, &wanted), -1);
  EXPECT_EQ(_vok_brc_add(nullptr, &wanted), -1);
  EXPECT_EQ(_vok_brc_add(kcih, nullptr), -1);
  EXPECT_TRUE(log.take().empty());

  const ::brc other = entry("02:00:00:00:00:11", 3);
  fault::fail_allocation(1);
  EXPECT_EQ(_vok_brc_add(kcih, &other), -1);
  fault::fail_allocation(0);
  EXPECT_EQ(log.take_text(),
            std::vector<std::string>{"_vok_brc_add: Out of memory allocating brc entry\n"});
}

TEST_F(bridge_cache, update_follows_the_host) {
  ::brc wanted = entry(host, 3);
  ASSERT_EQ(_vok_brc_add(kcih, &wanted), 0);
  ::brc* cached = find(host);
  const u32 added = cached->add_time;
  EXPECT_EQ(kcih->_vok_brc_portal_change(kcih, wanted.dmac, 0x105), 0);
  EXPECT_EQ(cached->portal, 5);

  pass(10);
  cached->last_seen = 77;
  wanted.tag_mode = static_cast<u8>(tag_mode::tag);
  _vok_brc_update(kcih, &wanted);
  EXPECT_EQ(cached->add_time, added) << "the port is the same";
  EXPECT_EQ(cached->last_seen, 0U);
  EXPECT_EQ(cached->tag_mode, static_cast<u8>(tag_mode::tag));

  wanted.sendif = wan;
  wanted.bridgeID = 4;  // without a VLAN the one entry moves to the other bridge
  _vok_brc_update(kcih, &wanted);
  EXPECT_EQ(find(host), cached);
  EXPECT_EQ(cached->add_time, u32{jiffies});
  EXPECT_EQ(cached->bridgeID, 4);
  EXPECT_EQ(cached->sendif, wan.get());
  EXPECT_EQ(cached->portal, 5);
  EXPECT_EQ(cached->refcnt, 1);
}

TEST_F(bridge_cache, a_host_in_vlans_of_two_bridges_has_two_entries) {
  const ::brc first = entry(host, 3, 10);
  ::brc second = entry(host, 4, 20);
  ASSERT_EQ(_vok_brc_add(kcih, &first), 0);
  _vok_brc_update(kcih, &second);
  ASSERT_NE(find(host, 3), nullptr);
  ASSERT_NE(find(host, 4), nullptr);
  EXPECT_EQ(find(host), find(host, 4)) << "the newest comes first";

  // An update concerns the entry of its own bridge, wherever that is in the chain.
  ::brc moved = first;
  moved.sendif = wan;
  _vok_brc_update(kcih, &moved);
  EXPECT_EQ(find(host, 3)->sendif, wan.get());
  EXPECT_EQ(find(host, 4)->sendif, lan.get());

  _vok_brc_delete(kcih, second.dmac, 4);
  EXPECT_EQ(find(host, 4), nullptr);
  EXPECT_EQ(find(host), find(host, 3));
  _vok_brc_delete(kcih, second.dmac, 4);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(bridge_cache, reports_what_is_not_there) {
  const ::brc wanted = entry(host, 3);
  _vok_brc_update(kcih, &wanted);
  EXPECT_EQ(kcih->_vok_brc_portal_change(kcih, wanted.dmac, 1), -1);
  EXPECT_EQ(kcih->_vok_brc_portal_change(kcih, nullptr, 1), -1);
  EXPECT_EQ(find(host), nullptr);
  EXPECT_EQ(log.take_text(), (std::vector<std::string>{
                                 "_vok_brc_update: Bridge cache entry entry  not found\n",
                                 "_vok_brc_portal_change: Bridge cache entry entry not found\n"}));
}

}  // namespace
}  // namespace tarvelo::test
