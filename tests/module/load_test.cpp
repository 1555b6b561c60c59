// SPDX-License-Identifier: GPL-2.0-only
#include <algorithm>

#include "module/brc/table.h"
#include "module/core/handle.h"
#include "module/core/init.h"
#include "module/ipc/table.h"
#include "tests/module/module_scene.h"

namespace tarvelo::test {
namespace {

class loading : public kernel_test {};

[[nodiscard]] bool is_all_zero(const vok_handle& handle) {
  const auto* bytes_of_handle = reinterpret_cast<const u8*>(&handle);
  return std::all_of(bytes_of_handle, bytes_of_handle + sizeof(handle),
                     [](u8 byte) { return byte == 0; });
}

TEST_F(loading, publishes_a_complete_handle_and_withdraws_it) {
  auto loaded = load_module();
  ASSERT_EQ(kcih, &kci);
  EXPECT_STREQ(kcih->name, "tarvelo");
  EXPECT_EQ(kcih->enable, 1);
  EXPECT_EQ(kcih->ready, 1);
  EXPECT_EQ(kcih->portal_check, 0);
  EXPECT_EQ(kcih->reserved_24, nullptr);
  EXPECT_EQ(kcih->reserved_56, nullptr);
  EXPECT_EQ(kcih->reserved_64, nullptr);
  // The kernel calls the slots without looking: all from the first to the last are filled.
  const void* slots[sizeof(vok_handle) / sizeof(void*)];
  memcpy(slots, kcih, sizeof(slots));
  const auto index = [](std::size_t offset) { return offset / sizeof(void*); };
  for (std::size_t i = index(offsetof(vok_handle, _vok_forward));
       i <= index(offsetof(vok_handle, brc)); ++i) {
    const bool reserved = i == index(offsetof(vok_handle, reserved_24)) ||
                          i == index(offsetof(vok_handle, reserved_56)) ||
                          i == index(offsetof(vok_handle, reserved_64));
    const bool number = i == index(offsetof(vok_handle, enable)) ||
                        i == index(offsetof(vok_handle, ipc_count)) ||
                        i == index(offsetof(vok_handle, ipc_v6_count));
    if (!reserved && !number) {
      EXPECT_NE(slots[i], nullptr) << "slot " << i;
    }
  }
  EXPECT_TRUE(loaded->unload());
  EXPECT_EQ(kcih, nullptr);
  EXPECT_TRUE(is_all_zero(kci));
  EXPECT_EQ(log.take_text(),
            (std::vector<std::string>{"###tarvelo init successfull####\n",
                                      "vok_exit 4353: #########tarvelo exit success########\n"}));
}

TEST_F(loading, cuts_a_long_name) {
  vok_handle* ci = _vok_attach("a-name-too-long");
  ASSERT_EQ(ci, &kci);
  EXPECT_STREQ(ci->name, "a-name-");
  detach(ci);
  EXPECT_TRUE(is_all_zero(kci));
}

/// The last message of a load whose n-th allocation fails tells how far it got.
TEST_F(loading, that_fails_anywhere_leaves_nothing) {
  const fault::outstanding before = fault::now();
  std::vector<std::string> told;
  u32 failures = 0;
  for (u32 nth = 1;; ++nth) {
    fault::fail_allocation(nth);
    const int result = init_module();
    const bool fired = fault::fired();
    fault::fail_allocation(0);
    const auto lines = log.take_text();
    told.insert(told.end(), lines.begin(), lines.end());
    if (result == 0) {
      cleanup_module();
      rcu_barrier();
      EXPECT_EQ(fault::now(), before) << "allocation " << nth;
      if (!fired) break;
      continue;  // a single control file may be missing
    }
    ++failures;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(kcih, nullptr);
    EXPECT_TRUE(is_all_zero(kci));
    EXPECT_EQ(fault::now(), before) << "allocation " << nth;
  }
  EXPECT_GE(failures, 7U) << "directory, slab cache, three tables, two locks";
  for (const char* line :
       {"create vok debug file system failed, the proc name is vok",
        "create vok debug file system failed\n",
        "create proc directory failed, the proc name is vok",
        "create proc entry faied, the name is enable",
        "_vok_memory_cache_init 4277: vok_ct_ext cache create failed\n",
        "_vok_attach: ipc malloc failed\n", "_vok_attach: ipc_v6 malloc failed\n",
        "_vok_attach: brc malloc failed\n", "vok_init: Tarvelo_init failed\n"}) {
    EXPECT_NE(std::find(told.begin(), told.end(), line), told.end()) << line;
  }
}

class unloading : public module_scene {};

/// A host's entry that connections share is freed once; kernel_test counts what is left.
TEST_F(unloading, releases_shared_bridge_entries) {
  ::brc cached = {};
  cached.sendif = lan;
  ASSERT_EQ(_vok_brc_add(kcih, &cached), 0);
  for (u16 port = 1; port <= 3; ++port) {
    bridge_host held;
    ASSERT_TRUE(in_softirq([&] { return hold_host_in_bridge(kcih, cached.dmac, 0, &held); }));
    auto* entry = static_cast<ipc_entry*>(
        kzalloc(static_cast<std::size_t>(ipc_entry_size::no_pppoe), GFP_KERNEL));
    entry->sport = port;
    entry->brc = held.entry;
    spin_lock_bh(kcih->ipc_lock);
    insert_flow(kcih, entry);
    spin_unlock_bh(kcih->ipc_lock);
  }
  EXPECT_TRUE(module_->unload());
}

}  // namespace
}  // namespace tarvelo::test
