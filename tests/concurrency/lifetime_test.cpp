// SPDX-License-Identifier: GPL-2.0-only
//
// The moments that a crowd meets only by luck, one by one: something is removed while somebody is
// still looking at it. Read sides are held open on purpose, so nothing here depends on time.
#include <atomic>
#include <functional>
#include <thread>
#include <tuple>
#include <utility>

#include "kernel/proc_tree.h"
#include "kernel/rcupdate.h"
#include "module/brc/table.h"
#include "module/ipc/remove.h"
#include "module/ipc/table.h"
#include "module/ipv6/table.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;

/// Entries of all three caches, sent to `port`.
class lifetime : public module_scene {
 protected:
  lifetime() {
    lan->priv_flags |= IFF_EBRIDGE;
    host_entry_.sendif = port;
    host_entry_.bridgeID = bridge_id(lan);
    host_entry_.tag_mode = static_cast<u8>(tag_mode::untag);
    const mac at = mac_of(host_mac);
    std::copy(std::begin(at.at), std::end(at.at), host_entry_.dmac);
  }

  /// The reply direction of a connection, which leaves by the bridge and holds its host's entry,
  /// and an IPv6 entry.
  void fill() {
    ASSERT_EQ(_vok_brc_add(kcih, &host_entry_), 0);
    ct = std::make_unique<tracked_connection>(tuple(tcp, inside, peer),
                                              tuple(tcp, peer, translated));
    make_report(source_nat(*ct, tcp, true));
    auto* entry = static_cast<ipc_v6_entry*>(
        kzalloc(static_cast<std::size_t>(ipc_v6_entry_size::no_pppoe), GFP_KERNEL));
    entry->proto = tcp;
    entry->sendif = port;
    spin_lock_bh(kcih->ipc_v6_lock);
    ipv6_table::insert(kcih, entry);
    spin_unlock_bh(kcih->ipc_v6_lock);
  }

  void remove_by_key() {
    EXPECT_EQ(_vok_ipc_delete(kcih, ip4(peer.address), ip4(translated.address), tcp,
                              wire::htons(peer.port), wire::htons(translated.port)),
              0);
    EXPECT_EQ(_vok_ipc_v6_delete(kcih, {}, {}, tcp, 0, 0), 0);
  }
  void sweep() { EXPECT_EQ(kcih->_vok_ipc_delete_by_dev(kcih, port), 0); }
  void forget_host() { _vok_brc_delete(kcih, host_entry_.dmac, host_entry_.bridgeID); }
  void end() { ct.reset(); }
  void end_while_off() {
    switch_fast_path(kcih, 0);
    end();
    switch_fast_path(kcih, 1);
  }

  fake_device port{"eth2", "02:00:00:00:01:11"};
  ::brc host_entry_ = {};
  std::unique_ptr<tracked_connection> ct;
};

TEST_F(lifetime, what_a_reader_has_found_stays_until_it_leaves) {
  const struct {
    const char* name;
    std::function<void()> remove;
  } rows[] = {
      {"by key, then the host", [this] { remove_by_key(), forget_host(), end(); }},
      {"the host, then by key", [this] { forget_host(), remove_by_key(), end(); }},
      {"the device", [this] { sweep(), forget_host(), end(); }},
      {"the connection's end", [this] { end(), sweep(), forget_host(); }},
      {"its end while switched off", [this] { end_while_off(), sweep(), forget_host(); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    fill();
    rcu_read_lock();
    const ipc_entry* entry =
        kcih->_vok_ipc_lkup(kcih, ip4(peer.address), ip4(translated.address), tcp,
                            wire::htons(peer.port), wire::htons(translated.port), 0);
    const ipc_v6_entry* entry6 = _vok_ipc_v6_lkup(kcih, {}, {}, tcp, 0, 0);
    const ::brc* host_found = kcih->_vok_brc_lkup(kcih, host_entry_.dmac);
    ASSERT_NE(entry, nullptr);
    ASSERT_NE(entry6, nullptr);
    ASSERT_NE(host_found, nullptr);
    const nf_conn* connection = entry->ct;
    const fault::outstanding before = fault::now();
    row.remove();
    EXPECT_EQ(kcih->ipc_count + kcih->ipc_v6_count, 0U);
    EXPECT_EQ(fault::now().allocations, before.allocations);
    EXPECT_EQ(fault::now().connections, before.connections);
    EXPECT_EQ(entry->dport, wire::htons(translated.port));
    EXPECT_EQ(entry6->sendif, port.get());
    EXPECT_EQ(host_found->sendif, port.get());
    EXPECT_EQ(connection->ct_general.use.counter, 0);
    rcu_read_unlock();
    rcu_barrier();
    constexpr u64 gone = 4;  // two entries, the host, the connection
    EXPECT_EQ(fault::now().allocations, before.allocations - gone);
    EXPECT_EQ(fault::now().connections, before.connections - 1);
  }
}

/// The host that a new entry was to have is forgotten before the entry is refused, so that this
/// drops the host's last reference.
TEST_F(lifetime, a_refused_entry_lets_go_of_its_host_after_a_grace_period) {
  if (!kernel_checked) GTEST_SKIP() << "only a checked kernel tells when a lock is taken";
  fill();
  ipc_entry* known = kcih->_vok_ipc_lkup(kcih, ip4(peer.address), ip4(translated.address), tcp,
                                         wire::htons(peer.port), wire::htons(translated.port), 0);
  put_bridge_entry(std::exchange(known->brc, nullptr));
  const tracked_connection twin(tuple(tcp, inside, peer), tuple(tcp, peer, translated));
  const fault::outstanding before = fault::now();
  rcu_read_lock();
  const ::brc* host_found = kcih->_vok_brc_lkup(kcih, host_entry_.dmac);
  static std::function<void()> forget;
  forget = [this] { forget_host(); };
  checked_observe_locks([](const void* lock, bool) {
    if (lock != kcih->ipc_lock) return;
    checked_observe_locks(nullptr);
    forget();
  });
  make_report(source_nat(twin, tcp, true));
  EXPECT_EQ(host_found->sendif, port.get());
  rcu_read_unlock();
  rcu_barrier();
  EXPECT_EQ(fault::now().allocations, before.allocations - 1);
  remove_by_key();
  end();
}

struct open_listing {
  explicit open_listing(const char* path) : file(proc::open_file::open(path, &error)) {}

  /// At most as much as is asked for.
  [[nodiscard]] std::string read(std::size_t size) const {
    std::string text(size, '\0');
    const ssize_type got = file->read(text.data(), size);
    EXPECT_GE(got, 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
  }

  int error = 0;
  std::unique_ptr<proc::open_file> file;
};

TEST_F(lifetime, a_listing_that_is_half_read_shows_nothing_that_has_been_deleted) {
  constexpr u16 entries = 8;
  for (u16 i = 0; i < entries; ++i) {
    auto* entry = static_cast<ipc_entry*>(
        kzalloc(static_cast<std::size_t>(ipc_entry_size::no_pppoe), GFP_KERNEL));
    entry->sport = i;
    entry->sendif = port;
    auto* entry6 = static_cast<ipc_v6_entry*>(
        kzalloc(static_cast<std::size_t>(ipc_v6_entry_size::no_pppoe), GFP_KERNEL));
    entry6->sport = i;
    entry6->sendif = port;
    spin_lock_bh(kcih->ipc_lock);
    ipv4_table::insert(kcih, entry);
    spin_unlock_bh(kcih->ipc_lock);
    spin_lock_bh(kcih->ipc_v6_lock);
    ipv6_table::insert(kcih, entry6);
    spin_unlock_bh(kcih->ipc_v6_lock);
    host_entry_.dmac[0] = static_cast<u8>(i * 2);
    ASSERT_EQ(_vok_brc_add(kcih, &host_entry_), 0);
  }
  const open_listing listings[] = {open_listing("vok/ipc_info"), open_listing("vok/ipc_v6_info"),
                                   open_listing("vok/brc_info")};
  constexpr std::size_t some_lines = 100;
  for (const open_listing& one : listings)
    EXPECT_NE(one.read(some_lines), "");
  sweep();
  for (u16 i = 0; i < entries; ++i) {
    host_entry_.dmac[0] = static_cast<u8>(i * 2);
    forget_host();
  }
  rcu_barrier();
  for (const open_listing& one : listings) {
    std::size_t lines = 0;
    for (std::string text = one.read(some_lines); !text.empty(); text = one.read(some_lines))
      lines += static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    EXPECT_LE(lines, 1U) << "what the line begun before has left";
  }
}

/// What a hook of these tests waits for, and what it has seen.
struct {
  std::atomic<bool> is_inside;
  std::atomic<bool> may_go;
  std::atomic<bool> next_was_called;
} meeting;

unsigned wait_inside(unsigned, u8, sk_buff*) {
  meeting.is_inside = true;
  while (!meeting.may_go)
    std::this_thread::yield();
  return VOK_ACCEPT;
}
unsigned note_call(unsigned, u8, sk_buff*) {
  meeting.next_was_called = true;
  return VOK_ACCEPT;
}

class inside_a_hook : public lifetime {
 protected:
  inside_a_hook() {
    meeting.is_inside = meeting.may_go = meeting.next_was_called = false;
    EXPECT_EQ(kcih->_vok_register_hook(kcih, &first_), 0);
  }

  /// A packet on another processor that waits in the first hook.
  std::thread packet_under_way() {
    std::thread packet([this] {
      hosted::set_processor(1);
      std::ignore = offer(packet_of(tcp, lan_mac, host_mac, inside, peer).build(), lan);
    });
    while (!meeting.is_inside)
      std::this_thread::yield();
    return packet;
  }

  vok_hook_ops first_{{}, wait_inside, nullptr, 2, VOK_HOOK_IP_PRE_ROUTING, 0, "first"};
};

TEST_F(inside_a_hook, a_walk_goes_on_from_a_hook_that_is_removed_under_it) {
  vok_hook_ops second{{}, note_call, nullptr, 2, VOK_HOOK_IP_PRE_ROUTING, 1, "second"};
  ASSERT_EQ(kcih->_vok_register_hook(kcih, &second), 0);
  std::thread packet = packet_under_way();
  EXPECT_EQ(kcih->_vok_unregister_hook(kcih, &first_), 0);
  meeting.may_go = true;
  packet.join();
  EXPECT_TRUE(meeting.next_was_called);
  EXPECT_EQ(kcih->_vok_unregister_hook(kcih, &second), 0);
  synchronize_rcu();
}

TEST_F(inside_a_hook, unloading_waits_for_whoever_is_inside) {
  std::thread packet = packet_under_way();
  EXPECT_EQ(kcih->_vok_unregister_hook(kcih, &first_), 0);
  std::atomic<bool> is_unloaded{false};
  std::thread unloading([&] {
    EXPECT_TRUE(module_->unload());
    is_unloaded = true;
  });
  while (rcu_dereference(kcih) != nullptr)
    std::this_thread::yield();
  // The handle is withdrawn, and what the packet will need when it comes back must stay. There is
  // nothing to wait for; these are turns in which a hasty unloading would get ahead.
  constexpr int turns = 2000;
  for (int i = 0; i < turns && !is_unloaded; ++i)
    std::this_thread::yield();
  EXPECT_FALSE(is_unloaded);
  meeting.may_go = true;
  packet.join();
  unloading.join();
}

}  // namespace
}  // namespace tarvelo::test
