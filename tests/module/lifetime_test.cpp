// SPDX-License-Identifier: GPL-2.0-only
//
// What happens in one hold of a table's lock and what only behind it; what stays as long as
// somebody may look at it. The checked kernel tells who takes and lets go which lock, and sees who
// reads freed memory; other builds see less.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "kernel/fault.h"
#include "module/brc/table.h"
#include "module/core/init.h"
#include "module/forward/vlan_tag.h"
#include "tests/module/ipv6_scene.h"

namespace tarvelo::test {
namespace {

constexpr u8 tcp = wire::ip_protocol::tcp;

/// The holds of one lock by this thread while the object lives.
class lock_watch {
 public:
  /// `on_release` is called just before each release, `on_take` before the lock is waited for.
  explicit lock_watch(
      const void* lock, std::function<void()> on_release = [] {},
      std::function<void()> on_take = [] {}) {
    watched_ = lock;
    holds_ = 0;
    on_release_ = std::move(on_release);
    on_take_ = std::move(on_take);
    checked_observe_locks(&seen);
  }
  ~lock_watch() { checked_observe_locks(nullptr); }
  lock_watch(const lock_watch&) = delete;
  lock_watch& operator=(const lock_watch&) = delete;

  [[nodiscard]] static int holds() { return holds_; }

 private:
  static void seen(const void* lock, bool taken) {
    if (lock != watched_) return;
    if (taken) {
      ++holds_;
      on_take_();
    } else {
      on_release_();
    }
  }
  static inline const void* watched_;
  static inline int holds_;
  static inline std::function<void()> on_release_;
  static inline std::function<void()> on_take_;
};

class holds : public ppp_scene {
 protected:
  void SetUp() override {
    if (!kernel_checked) GTEST_SKIP() << "only a checked kernel tells";
  }
};

TEST_F(holds, one_of_the_lock_forwards_a_frame) {
  for (const side in : {side::plain, side::pppoe, side::l2tp, side::pptp}) {
    SCOPED_TRACE(static_cast<int>(in));
    tunnel_route_.reset();
    peer_route_.reset();
    in_ppp_.reset();
    ct->vok_ext->flags &= ~ct_ext_flag::direction_marks;
    set_up(in, side::plain);
    connect();
    const bytes frame = offered();
    (void)wan.take();
    {
      const lock_watch watch(kcih->ipc_lock, [&] { EXPECT_TRUE(wan.sent().empty()); });
      EXPECT_EQ(offer(frame, lan), fate::forward);
      EXPECT_EQ(watch.holds(), 1);
    }
    (void)kcih->_vok_ipc_delete_by_dev(kcih, wan);
  }
}

/// Both table look-up and insertion, with the record written when the lock is let go.
TEST_F(holds, one_of_the_lock_adds_an_entry) {
  vok_ct_ext& ext = *ct->vok_ext;
  vlan_device vlan("wan.9", wan, 9);
  const scoped_neighbour far(peer.address, vlan, gateway_mac);
  peer_route_.emplace(peer.address, 32, "0.0.0.0", vlan);
  report r = source_nat(ct, tcp, false);
  r.dev = vlan;
  {
    const lock_watch watch(kcih->ipc_lock, [&] {
      EXPECT_NE(ext.flags & ct_ext_flag::ever_added, 0U);
      EXPECT_NE(ext.flags & ct_ext_flag::original_added, 0U);
      EXPECT_EQ(ext.dev, static_cast<net_device*>(vlan));
      EXPECT_EQ(ext.vlan[IP_CT_DIR_ORIGINAL].vid, 9);
      EXPECT_EQ(kcih->ipc_count, 1U);
    });
    make_report(r);
    EXPECT_EQ(watch.holds(), 1);
  }
  (void)kcih->_vok_ipc_delete_by_dev(kcih, vlan);
  (void)kcih->_vok_ipc_delete_by_dev(kcih, wan);
  ext.dev = nullptr;
}

/// The session's own reference goes while a frame is on its way; the frame's is dropped behind the
/// lock.
TEST_F(holds, of_the_lock_end_before_an_l2tp_session_is_let_go) {
  set_up(side::plain, side::l2tp);
  connect();
  const atomic_t& references = out_ppp_->session()->ref_count;
  const s32 at_rest = atomic_read(&references);
  const lock_watch watch(kcih->ipc_lock, [&] { EXPECT_EQ(atomic_read(&references), at_rest + 1); });
  EXPECT_EQ(offer(offered(), lan), fate::forward);
  EXPECT_EQ(atomic_read(&references), at_rest);
}

/// Whoever sets the switch sweeps what is cut off: behind that, nothing may be cut off any more.
TEST_F(holds, of_the_lock_see_a_switch_that_was_set_before) {
  make_report(source_nat(ct, tcp, false));
  write_once(kcih->enable, u8{0});
  const lock_watch watch(
      kcih->ipc_lock, [] {}, [] { write_once(kcih->enable, u8{1}); });
  EXPECT_EQ(kcih->_ip_conntrack_ipct_delete(kcih, ct.get()), 0);
  EXPECT_EQ(kcih->ipc_count, 0U);
}

class holds_v6 : public ipv6_scene {
 protected:
  void SetUp() override {
    if (!kernel_checked) GTEST_SKIP() << "only a checked kernel tells";
  }
};

template <typename Entry>
[[nodiscard]] std::string bytes_of_first(Entry* const* buckets, u32 count, std::size_t size) {
  Entry* const* found =
      std::find_if(buckets, buckets + count, [](const Entry* e) { return e != nullptr; });
  if (found == buckets + count) return "";
  return {reinterpret_cast<const char*>(*found), size};
}

TEST_F(holds_v6, leave_nothing_half_made_in_a_table) {
  const tracked_connection v4(tuple(tcp, inside, peer), tuple(tcp, peer, translated));
  const tracked6 v6(tcp, inside6, peer6);
  ::brc learnt = {};
  learnt.sendif = lan;
  const struct {
    const char* name;
    const void* lock;
    std::function<void()> add;
    std::function<std::string()> bytes;
  } rows[] = {
      {"IPv4", kcih->ipc_lock, [&] { make_report(source_nat(v4, tcp, false)); },
       [] {
         return bytes_of_first(kcih->ipc, ipc_buckets,
                               static_cast<std::size_t>(ipc_entry_size::no_pppoe));
       }},
      {"IPv6", kcih->ipc_v6_lock, [&] { make_report(outbound(v6, tcp)); },
       [] {
         return bytes_of_first(kcih->ipc_v6, ipc_v6_buckets,
                               static_cast<std::size_t>(ipc_v6_entry_size::no_pppoe));
       }},
      {"host", &brc_lock, [&] { EXPECT_EQ(_vok_brc_add(kcih, &learnt), 0); },
       [] { return bytes_of_first(kcih->brc, brc_buckets, sizeof(::brc)); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::string when_released;
    {
      const lock_watch watch(row.lock, [&] { when_released = row.bytes(); });
      row.add();
    }
    EXPECT_NE(when_released, "");
    EXPECT_EQ(when_released, row.bytes());
  }
}

TEST_F(holds_v6, one_of_the_lock_adds_and_one_forwards) {
  const tracked6 ct(tcp, inside6, peer6);
  {
    const lock_watch watch(kcih->ipc_v6_lock, [&] {
      EXPECT_NE(ct->vok_ext->flags & ct_ext_flag::ever_added, 0U);
      EXPECT_EQ(kcih->ipc_v6_count, 1U);
    });
    make_report(outbound(ct, tcp));
    EXPECT_EQ(watch.holds(), 1);
  }
  ripen6(outbound(ct, tcp));
  const lock_watch watch(kcih->ipc_v6_lock, [&] { EXPECT_TRUE(wan.sent().empty()); });
  EXPECT_EQ(offer(packet6(ethernet(lan_mac, host_mac), tcp, inside6, peer6).build(), lan),
            fate::forward);
  EXPECT_EQ(watch.holds(), 1);
}

/// What a reader has found stays until it has left, though it is in no table any more.
class found : public ipv6_scene {};

TEST_F(found, entries_outlive_their_removal_by_a_grace_period) {
  const tracked_connection ct(tuple(tcp, inside, peer), tuple(tcp, peer, translated));
  const tracked6 six(tcp, inside6, peer6);
  make_report(source_nat(ct, tcp, false));
  make_report(outbound(six, tcp));
  ::brc known = {};
  known.bridgeID = 9;
  ASSERT_EQ(_vok_brc_add(kcih, &known), 0);

  rcu_read_lock();
  const ipc_entry* entry = kcih->_vok_ipc_lkup(kcih, ip4(inside.address), ip4(peer.address), tcp,
                                               wire::htons(inside.port), wire::htons(peer.port), 0);
  const ipc_v6_entry* entry6 = find6(tcp, inside6, peer6);
  const ::brc* cached = kcih->_vok_brc_lkup(kcih, known.dmac);
  ASSERT_TRUE(entry != nullptr && entry6 != nullptr && cached != nullptr);
  (void)kcih->_vok_ipc_delete_by_dev(kcih, wan);
  _vok_brc_delete(kcih, known.dmac, known.bridgeID);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(entry->ct, ct.get());
  EXPECT_EQ(entry6->ct, six.get());
  EXPECT_EQ(cached->bridgeID, 9);
  rcu_read_unlock();
}

/// A host that is on its way out is as good as not there.
TEST_F(found, nobody_gets_a_reference_on_a_bridge_entry_without_one) {
  ::brc known = {};
  known.sendif = lan;
  ASSERT_EQ(_vok_brc_add(kcih, &known), 0);
  ::brc* cached = kcih->_vok_brc_lkup(kcih, known.dmac);
  cached->refcnt = 0;
  bridge_host held;
  EXPECT_FALSE(in_softirq([&] { return hold_host_in_bridge(kcih, known.dmac, 0, &held); }));
  EXPECT_EQ(cached->refcnt, 0U);
  cached->refcnt = 1;
}

class unload_order : public module_scene {};

/// A caller inside finds the handle withdrawn, while all that it has read of it is still there.
TEST_F(unload_order, withdraws_the_handle_then_waits_for_callers) {
  std::atomic<bool> inside = false, unloaded = false, withdrawn = false, early = false;
  std::thread caller([&] {
    rcu_read_lock();
    const vok_handle* ci = kcih;
    inside = true;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (read_once(kcih) != nullptr && std::chrono::steady_clock::now() < end)
      std::this_thread::yield();
    withdrawn = read_once(kcih) == nullptr;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    early = unloaded || ci->ipc == nullptr || ci->ipc[0] != nullptr;
    rcu_read_unlock();
  });
  while (!inside)
    std::this_thread::yield();
  EXPECT_TRUE(module_->unload());
  unloaded = true;
  caller.join();
  EXPECT_TRUE(withdrawn);
  EXPECT_FALSE(early);
}

u64 left_by_exit = 0;

void counting_exit() {
  cleanup_module();
  left_by_exit = fault::now().allocations;
}

/// The deferred frees are code of the module: it may not return from its exit before they have run.
TEST_F(unload_order, ends_with_the_last_deferred_free) {
  ASSERT_TRUE(module_->unload());
  rcu_barrier();
  const u64 before = fault::now().allocations;
  std::string error;
  auto loaded = loaded_module::load_linked(init_module, counting_exit, &__this_module, &error);
  ::brc known = {};
  ASSERT_EQ(_vok_brc_add(kcih, &known), 0);
  // Whoever frees it is busy for a moment.
  callback_head busy{};
  call_rcu(&busy,
           [](callback_head*) { std::this_thread::sleep_for(std::chrono::milliseconds(100)); });
  _vok_brc_delete(kcih, known.dmac, known.bridgeID);
  ASSERT_TRUE(loaded->unload());
  EXPECT_EQ(left_by_exit, before);
}

TEST_F(unload_order, a_frame_has_one_vlan_slot) {
  sk_buff* skb = make_skb(bytes(60), lan);
  for (const u8 direction : {u8{1}, u8{0}})
    choose_vlan_slot(skb, direction);
  EXPECT_EQ(skb->fast_flags, fast_flag::vlan_slot_valid);
  kfree_skb(skb);
}

}  // namespace
}  // namespace tarvelo::test
