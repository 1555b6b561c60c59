// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/fault.h"

#include <mutex>
#include <new>

#include "kernel/account.h"

namespace hosted::account {

thread_local constinit shard* own_shard = nullptr;
bool injecting = false;

namespace {

constinit std::mutex shards_lock;
constinit shard* shards = nullptr;

/// Taken by threads that are so far gone that their own words have been given back.
constinit shard orphans{};

thread_local constinit bool thread_has_left = false;

/// Gives the thread's words back when it ends.
struct shard_owner {
  ~shard_owner() {
    const std::scoped_lock guard(shards_lock);
    own_shard->in_use = false;
    own_shard = nullptr;
    thread_has_left = true;
  }
};

shard* take_shard() {
  const std::scoped_lock guard(shards_lock);
  for (shard* s = shards; s != nullptr; s = s->next) {
    if (!s->in_use) {
      s->in_use = true;
      return s;
    }
  }
  auto* s = new (std::nothrow) shard{};
  if (s == nullptr) return nullptr;
  s->in_use = true;
  s->next = shards;
  shards = s;
  return s;
}

constinit u32 fail_at = 0;
constinit u32 seen = 0;
constinit bool has_fired = false;

u64 sum(kind what) {
  const auto i = static_cast<unsigned>(what);
  const std::scoped_lock guard(shards_lock);
  u64 total = read_once(orphans.out[i]);
  for (const shard* s = shards; s != nullptr; s = s->next)
    total += read_once(s->out[i]);
  return total;
}

}  // namespace

void add_slow(kind what, u64 difference) noexcept {
  if (!thread_has_left) own_shard = take_shard();
  if (own_shard == nullptr) {
    __atomic_fetch_add(&orphans.out[static_cast<unsigned>(what)], difference, __ATOMIC_RELAXED);
    return;
  }
  thread_local const shard_owner owner;
  static_cast<void>(owner);
  add(what, difference);
}

bool may_allocate_slow() noexcept {
  const u32 n = __atomic_add_fetch(&seen, 1, __ATOMIC_RELAXED);
  if (n != read_once(fail_at)) return true;
  write_once(has_fired, true);
  return false;
}

}  // namespace hosted::account

namespace hosted {
bool user_copies_fail = false;
}

namespace fault {

using hosted::account::kind;

void fail_allocation(u32 n) noexcept {
  using namespace hosted::account;
  write_once(fail_at, n);
  write_once(seen, 0U);
  write_once(has_fired, false);
  write_once(injecting, true);  // from here on allocations are counted
}

u32 allocations_seen() noexcept {
  return read_once(hosted::account::seen);
}

bool fired() noexcept {
  return read_once(hosted::account::has_fired);
}

outstanding now() noexcept {
  using hosted::account::sum;
  return {sum(kind::allocation), sum(kind::slab_object), sum(kind::slab_cache),
          sum(kind::buffer),     sum(kind::proc_entry),  sum(kind::connection)};
}

void fail_user_copies(bool fail) noexcept {
  write_once(hosted::user_copies_fail, fail);
}

}  // namespace fault
