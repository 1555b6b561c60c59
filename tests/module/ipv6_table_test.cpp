// SPDX-License-Identifier: GPL-2.0-only
//
// The IPv6 connection table: keys, removals and the listing of a large table.
#include <sstream>

#include "kernel/proc_tree.h"
#include "module/ipc/remove.h"
#include "tests/module/ipv6_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;

class ipv6_table_test : public ipv6_scene {
 protected:
  /// Puts an entry straight into the table.
  static ipc_v6_entry* insert(const flow_key_v6& key, net_device* sendif) {
    auto* entry = static_cast<ipc_v6_entry*>(
        kzalloc(static_cast<std::size_t>(ipc_v6_entry_size::no_pppoe), GFP_KERNEL));
    std::copy(std::begin(key.sip.bytes), std::end(key.sip.bytes), entry->sip);
    std::copy(std::begin(key.dip.bytes), std::end(key.dip.bytes), entry->dip);
    entry->sport = key.sport;
    entry->dport = key.dport;
    entry->proto = key.proto;
    entry->sendif = sendif;
    spin_lock_bh(kcih->ipc_v6_lock);
    insert_flow(kcih, entry);
    spin_unlock_bh(kcih->ipc_v6_lock);
    return entry;
  }

  static ipc_v6_entry* look_up(const flow_key_v6& key) {
    return _vok_ipc_v6_lkup(kcih, key.sip, key.dip, key.proto, key.sport, key.dport);
  }

  /// A connection from that port with both directions in the table.
  [[nodiscard]] std::unique_ptr<tracked6> connect(u16 port) {
    const endpoint from = {inside6.address, port};
    auto ct = std::make_unique<tracked6>(tcp, from, peer6);
    report6 out = outbound(*ct, tcp);
    out.frame = packet6(ethernet(lan_mac, host_mac), tcp, from, peer6).build();
    report6 back = inbound(*ct, tcp);
    back.frame = packet6(ethernet(wan_mac, gateway_mac), tcp, peer6, from).build();
    make_report(out);
    make_report(back);
    return ct;
  }
  [[nodiscard]] static ipc_v6_entry* entry_of(u16 port) {
    return find6(tcp, {inside6.address, port}, peer6);
  }
};

TEST_F(ipv6_table_test, has_the_documented_buckets) {
  const endpoint a = {"2001:db8::1", 1234}, b = {"2001:db8::2", 80};
  EXPECT_EQ(ipc_v6_bucket(key6(tcp, a, b)), 4532U);
  EXPECT_EQ(ipc_v6_bucket(key6(tcp, b, a)), 6312U);
  EXPECT_EQ(ipc_v6_bucket({}), 0U);
}

TEST_F(ipv6_table_test, tells_keys_apart_in_every_part) {
  const flow_key_v6 base = key6(tcp, {"2001:db8::1", 1234}, {"2001:db8::2", 80});
  std::vector<flow_key_v6> keys(6, base);
  keys[1].sip.bytes[15] ^= 1;
  keys[2].dip.bytes[0] ^= 1;
  keys[3].proto = udp;
  std::swap(keys[4].sport, keys[4].dport);
  keys[5] = {};
  std::vector<ipc_v6_entry*> entries;
  for (const flow_key_v6& key : keys) {
    EXPECT_EQ(look_up(key), nullptr);
    entries.push_back(insert(key, lan));
  }
  for (std::size_t i = 0; i < keys.size(); ++i)
    EXPECT_EQ(look_up(keys[i]), entries[i]) << i;
  EXPECT_EQ(count6(), 6);
  const auto remove = [](const flow_key_v6& key) {
    return _vok_ipc_v6_delete(kcih, key.sip, key.dip, key.proto, key.sport, key.dport);
  };
  EXPECT_EQ(remove(keys[3]), 0);
  EXPECT_EQ(remove(keys[3]), -1);
  EXPECT_EQ(look_up(keys[3]), nullptr);
  EXPECT_EQ(look_up(keys[0]), entries[0]);
  EXPECT_EQ(count6(), 5);
}

/// Two words of an address that change alike leave the bucket alone.
TEST_F(ipv6_table_test, keeps_the_rest_of_a_chain_linked) {
  std::vector<flow_key_v6> keys;
  for (u8 i = 0; i < 5; ++i) {
    flow_key_v6 key = {};
    key.sip.bytes[0] = key.sip.bytes[4] = i;
    keys.push_back(key);
    ASSERT_EQ(ipc_v6_bucket(key), 0U);
    // Newest first: the sweep meets the head, then its successor, then one in the middle.
    insert(key, i == 4 || i == 3 || i == 1 ? lan.get() : wan.get());
  }
  EXPECT_EQ(kcih->ipc_v6[0], look_up(keys[4]));
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, lan), 0);
  EXPECT_EQ(count6(), 2);
  for (u8 i = 0; i < 5; ++i)
    EXPECT_EQ(look_up(keys[i]) != nullptr, i == 0 || i == 2) << int{i};
}

TEST_F(ipv6_table_test, reports_a_missing_handle_or_table) {
  EXPECT_EQ(_vok_ipc_v6_delete(nullptr, {}, {}, tcp, 0, 0), -1);
  EXPECT_EQ(_vok_ipc_v6_count_get(nullptr), -2);
  vok_handle empty = {};
  EXPECT_EQ(_vok_ipc_v6_lkup(&empty, {}, {}, tcp, 0, 0), nullptr);
  EXPECT_EQ(_vok_ipc_v6_lkup(nullptr, {}, {}, tcp, 0, 0), nullptr);
  EXPECT_EQ(_vok_ipc_v6_count_get(&empty), -2);
  const auto lines = log.take_text();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], "_vok_ipc_v6_delete: Invalid input (ci (null) ipc (null))");
  EXPECT_EQ(lines[1], "_vok_ipc_v6_count_get: Invalid input (ci (null))");
}

TEST_F(ipv6_table_test, loses_both_directions_with_the_connection) {
  auto first = connect(1000);
  auto second = connect(1001);
  EXPECT_EQ(count6(), 4);
  first.reset();
  EXPECT_EQ(count6(), 2);
  EXPECT_EQ(entry_of(1000), nullptr);
  EXPECT_NE(entry_of(1001), nullptr);
  // Same tuples, but no entry of its own.
  tracked6 twin(tcp, {inside6.address, 1001}, peer6);
  twin.drop();
  EXPECT_EQ(count6(), 2);
}

TEST_F(ipv6_table_test, loses_what_uses_a_device) {
  auto first = connect(1000);
  auto second = connect(1001);
  auto third = connect(1002);
  // A PPP interface is where the entry is accounted, not where it is sent.
  fake_device ppp("ppp0", "00:00:00:00:00:00", ARPHRD_PPP);
  entry_of(1001)->ppp_dev = ppp;
  // A re-labelled PPPoE session is known by the connection's record.
  entry_of(1002)->flags |= ipc_flag::pppoe_in_out;
  (*third)->vok_ext->dev = ppp;
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, ppp), 0);
  EXPECT_EQ(count6(), 4);
  EXPECT_EQ(entry_of(1001), nullptr);
  EXPECT_EQ(entry_of(1002), nullptr);
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, lan), 0);
  EXPECT_EQ(count6(), 1);
  EXPECT_NE(entry_of(1000), nullptr);
}

TEST_F(ipv6_table_test, orphans_what_ends_while_switched_off) {
  auto gone = connect(1000);
  EXPECT_EQ(proc::write_all("vok/enable", "0"), 1);
  gone.reset();
  EXPECT_EQ(count6(), 2);
  EXPECT_EQ(entry_of(1000), nullptr);
  EXPECT_EQ(
      offer(packet6(ethernet(lan_mac, host_mac), tcp, {inside6.address, 1000}, peer6).build(), lan),
      fate::no_entry);

  // The key is free for the connection's successor, which outlives the sweep of the orphans.
  auto successor = connect(1000);
  EXPECT_EQ(count6(), 4);
  EXPECT_EQ(proc::write_all("vok/enable", "1"), 1);
  EXPECT_EQ(count6(), 2);
  EXPECT_EQ(entry_of(1000)->ct, successor->get());
}

/// Whatever the reader's buffer, each of many connections comes once; sweeps leave the rest right.
TEST_F(ipv6_table_test, lists_ten_thousand_connections_in_small_pieces) {
  constexpr u16 many = 10000;
  for (u16 i = 0; i < many; ++i)
    insert(key6(udp, {"2001:db8::1", i}, {"2001:db8::2", 53}), i % 4 == 0 ? wan : lan);
  int error = 0;
  auto file = proc::open_file::open("vok/ipc_v6_info", &error);
  ASSERT_NE(file, nullptr) << error;
  std::string text;
  char piece[100];
  for (ssize_type n; (n = file->read(piece, sizeof piece)) > 0;)
    text.append(piece, static_cast<std::size_t>(n));
  file.reset();

  std::istringstream lines(text);
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(line, "total ipcp: 10000");
  std::vector<bool> seen(many);
  for (u32 number = 1; std::getline(lines, line); ++number) {
    EXPECT_EQ(std::stoul(line), number);
    const auto port = std::stoul(line.substr(line.find("sport=") + 6));
    ASSERT_LT(port, many) << line;
    EXPECT_FALSE(seen[port]) << line;
    seen[port] = true;
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), many);

  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, lan), 0);
  EXPECT_EQ(count6(), many / 4);
  for (u16 i = 0; i < many; ++i) {
    const bool there = find6(udp, {"2001:db8::1", i}, {"2001:db8::2", 53}) != nullptr;
    ASSERT_EQ(there, i % 4 == 0) << i;
  }
}

}  // namespace
}  // namespace tarvelo::test
