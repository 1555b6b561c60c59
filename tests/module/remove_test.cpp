// SPDX-License-Identifier: GPL-2.0-only
//
// How entries leave the table, and what is left behind while the fast path is switched off.
#include "module/ipc/remove.h"
#include "kernel/proc_tree.h"
#include "module/ipc/table.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;
constexpr u8 udp = wire::ip_protocol::udp;

class removal : public module_scene {
 protected:
  [[nodiscard]] static int count() { return kcih->_vok_ipc_count_get(kcih); }

  /// A connection from that port with both directions in the table.
  [[nodiscard]] std::unique_ptr<tracked_connection> connect(u16 port) {
    const endpoint from = {inside.address, port};
    const endpoint public_end = {translated.address, port};
    auto ct =
        std::make_unique<tracked_connection>(tuple(tcp, from, peer), tuple(tcp, peer, public_end));
    report original = source_nat(*ct, tcp, false);
    original.frame = packet_of(tcp, lan_mac, host_mac, from, peer).build();
    report reply = source_nat(*ct, tcp, true);
    reply.frame = packet_of(tcp, wan_mac, gateway_mac, peer, public_end).build();
    make_report(original);
    make_report(reply);
    return ct;
  }

  [[nodiscard]] static ipc_entry* entry_of(u16 port) {
    return kcih->_vok_ipc_lkup(kcih, ip4(inside.address), ip4(peer.address), tcp, wire::htons(port),
                               wire::htons(peer.port), 0);
  }
};

TEST_F(removal, takes_both_directions_with_the_connection) {
  auto first = connect(1000);
  auto second = connect(1001);
  EXPECT_EQ(count(), 4);
  first.reset();
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(entry_of(1000), nullptr);
  EXPECT_NE(entry_of(1001), nullptr);
}

TEST_F(removal, passes_over_connections_that_were_never_added) {
  auto added = connect(1000);
  // Same tuples, but no entry of its own.
  tracked_connection twin(tuple(tcp, {inside.address, 1000}, peer),
                          tuple(tcp, peer, {translated.address, 1000}));
  twin.drop();
  EXPECT_EQ(count(), 2);
}

TEST_F(removal, by_key_says_whether_it_found_any) {
  auto ct = connect(1000);
  const u32 sip = ip4(inside.address);
  const u32 dip = ip4(peer.address);
  EXPECT_EQ(_vok_ipc_delete(kcih, sip, dip, udp, wire::htons(1000), wire::htons(80)), -1);
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(_vok_ipc_delete(kcih, sip, dip, tcp, wire::htons(1000), wire::htons(80)), 0);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(_vok_ipc_delete(nullptr, sip, dip, tcp, 0, 0), -1);
  EXPECT_EQ(_vok_ipc_count_get(nullptr), -2);
  EXPECT_EQ(_vok_ipc_delete_by_dev(nullptr, lan), -1);
  EXPECT_EQ(log.take_text(),
            (std::vector<std::string>{"_vok_ipc_delete: Invalid input (ci (null) ipc (null))",
                                      "_vok_ipc_count_get: Invalid input (ci (null))",
                                      "_vok_ipc_delete_by_dev: Invalid input (ci (null))"}));
}

TEST_F(removal, sweeps_what_uses_a_device) {
  auto first = connect(1000);
  auto second = connect(1001);
  auto third = connect(1002);
  // A PPP interface is where the entry is accounted, not where it is sent.
  fake_device ppp("ppp0", "00:00:00:00:00:00", ARPHRD_PPP);
  entry_of(1001)->ppp_dev = ppp;
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, ppp), 0);
  EXPECT_EQ(count(), 5);
  EXPECT_EQ(entry_of(1001), nullptr);

  // A re-labelled PPPoE session is known by the connection's record.
  entry_of(1002)->flags |= ipc_flag::pppoe_in_out;
  (*third)->vok_ext->dev = ppp;
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, ppp), 0);
  EXPECT_EQ(count(), 4);

  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, lan), 0);
  EXPECT_EQ(count(), 1);
  EXPECT_NE(entry_of(1000), nullptr);
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, wan), 0);
  EXPECT_EQ(count(), 0);
}

/// Keys that only swap bits between their words share a bucket.
TEST_F(removal, keeps_the_rest_of_a_chain_linked) {
  const flow_key base = {1, 1, 1000, 1000, tcp};
  std::vector<flow_key> keys;
  for (u16 i = 0; i < 5; ++i) {
    keys.push_back({base.sip, base.dip, static_cast<u16>(base.sport + i),
                    static_cast<u16>(base.dport - i), tcp});
    auto* entry = static_cast<ipc_entry*>(
        kzalloc(static_cast<std::size_t>(ipc_entry_size::no_pppoe), GFP_KERNEL));
    entry->sip = keys[i].sip;
    entry->dip = keys[i].dip;
    entry->sport = keys[i].sport;
    entry->dport = keys[i].dport;
    entry->proto = tcp;
    // Newest first: the sweep meets the head, then its successor, then one in the middle.
    entry->sendif = i == 4 || i == 3 || i == 1 ? lan.get() : wan.get();
    spin_lock_bh(kcih->ipc_lock);
    insert_flow(kcih, entry);
    spin_unlock_bh(kcih->ipc_lock);
  }
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, lan), 0);
  EXPECT_EQ(count(), 2);
  for (u16 i = 0; i < 5; ++i) {
    spin_lock_bh(kcih->ipc_lock);
    const bool there = find_flow(kcih, keys[i]) != nullptr;
    spin_unlock_bh(kcih->ipc_lock);
    EXPECT_EQ(there, i == 0 || i == 2) << i;
  }
}

TEST_F(removal, orphans_what_ends_while_switched_off) {
  auto gone = connect(1000);
  const ipc_entry* left = entry_of(1000);
  EXPECT_EQ(proc::write_all("vok/enable", "0"), 1);
  gone.reset();
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(left->ct, nullptr);
  EXPECT_EQ(entry_of(1000), nullptr);
  EXPECT_EQ(offer(packet_of(tcp, lan_mac, host_mac, {inside.address, 1000}, peer).build(), lan),
            fate::no_entry);

  // The key is free for the connection's successor, which outlives the sweep of the orphans.
  auto successor = connect(1000);
  EXPECT_EQ(count(), 4);
  EXPECT_EQ(entry_of(1000)->ct, successor->get());
  EXPECT_EQ(proc::write_all("vok/enable", "1"), 1);
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(entry_of(1000)->ct, successor->get());
}

TEST_F(removal, sweeps_orphans_with_their_device) {
  auto gone = connect(1000);
  switch_fast_path(kcih, 0);
  gone.reset();
  EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, wan), 0);
  EXPECT_EQ(count(), 1);
}

TEST_F(removal, extension_records_come_clean_and_go_once) {
  nf_conn* ct = nf_conntrack_alloc();
  ASSERT_EQ(kcih->_vok_nf_conntrack_ext_alloc(ct), 0);
  const vok_ct_ext zero = {};
  EXPECT_EQ(memcmp(ct->vok_ext, &zero, sizeof(zero)), 0);
  EXPECT_EQ(kcih->_vok_nf_conntrack_ext_free(ct), 0);
  EXPECT_EQ(ct->vok_ext, nullptr);
  EXPECT_EQ(kcih->_vok_nf_conntrack_ext_free(ct), -1);

  fault::fail_allocation(1);
  EXPECT_EQ(kcih->_vok_nf_conntrack_ext_alloc(ct), -1);
  fault::fail_allocation(0);
  EXPECT_EQ(log.take_text(),
            std::vector<std::string>{"_vok_nf_conntrack_ext_alloc 3174: kmalloc failed\n"});
  nf_conntrack_free(ct);
}

}  // namespace
}  // namespace tarvelo::test
