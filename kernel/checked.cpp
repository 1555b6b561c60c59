// SPDX-License-Identifier: GPL-2.0-only
//
// The lock order is a graph over lock instances: an edge from A to B says that B was taken while A
// was held, and where. A new edge that closes a cycle is a deadlock waiting for its moment.
#include "kernel/checked.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>

#include "kernel/checked_internal.h"
#include "kernel/context.h"

namespace {

struct held_lock {
  const void* lock;
  lock_kind kind;
  code_place at;
};

constexpr unsigned most_held = 32;
constexpr unsigned most_read_sides = 64;

/// What one thread holds.
struct thread_checks {
  held_lock held[most_held];
  unsigned held_count;
  code_place read_side[most_read_sides];
  unsigned read_sides;
  code_place softirq_at;
  unsigned held_before_softirq;  ///< locks that may outlive the softirq: it began inside them
  void (*observer)(const void* lock, bool taken);
};
thread_local constinit thread_checks own{};

struct lock_record {
  code_place taken_at;                      ///< last
  code_place softirq_use;                   ///< taken in softirq context
  code_place interruptible;                 ///< taken in process context with bottom halves on
  std::map<const void*, code_place> after;  ///< locks taken while this one was held
};

/// Never destroyed: threads may still take locks while the program ends.
struct lock_graph {
  std::mutex lock;
  std::map<const void*, lock_record> records;
};
lock_graph& graph() {
  static auto* const g = new lock_graph;
  return *g;
}

bool known(code_place at) noexcept {
  return at.file != nullptr;
}

bool disables_bottom_halves(lock_kind kind) noexcept {
  return kind == lock_kind::spin_bh || kind == lock_kind::read_bh || kind == lock_kind::write_bh;
}

const held_lock* find_held(const void* lock) noexcept {
  for (unsigned i = 0; i < own.held_count; ++i) {
    if (own.held[i].lock == lock) return &own.held[i];
  }
  return nullptr;
}

bool bottom_halves_off() noexcept {
  for (unsigned i = 0; i < own.held_count; ++i) {
    if (disables_bottom_halves(own.held[i].kind)) return true;
  }
  return false;
}

/// The place of the first step of a way from `from` to `to` in the graph; unknown without one.
code_place find_path(const lock_graph& g, const void* from, const void* to,
                     std::set<const void*>* visited) {
  const auto record = g.records.find(from);
  if (record == g.records.end() || !visited->insert(from).second) return {};
  for (const auto& [next, at] : record->second.after) {
    if (next == to || known(find_path(g, next, to, visited))) return at;
  }
  return {};
}

/// Records that `lock` comes after everything the thread holds.
void check_order(lock_graph* g, const void* lock, code_place at) {
  for (unsigned i = 0; i < own.held_count; ++i) {
    const void* before = own.held[i].lock;
    if (!g->records[before].after.try_emplace(lock, at).second) continue;
    std::set<const void*> visited;
    const code_place reverse = find_path(*g, lock, before, &visited);
    if (known(reverse)) checked_fault("lock order cycle", at, reverse);
  }
}

/// A lock that softirqs take must never be held with bottom halves on.
void check_softirq_use(lock_record* record, lock_kind kind, code_place at) {
  if (hosted::in_softirq()) {
    if (!known(record->softirq_use)) record->softirq_use = at;
  } else if (!disables_bottom_halves(kind) && !bottom_halves_off()) {
    if (!known(record->interruptible)) record->interruptible = at;
  } else {
    return;
  }
  if (known(record->softirq_use) && known(record->interruptible)) {
    const bool now_softirq = hosted::in_softirq();
    checked_fault("lock taken in softirq context and elsewhere with bottom halves on", at,
                  now_softirq ? record->interruptible : record->softirq_use);
  }
}

void push_held(const void* lock, lock_kind kind, code_place at) {
  if (own.held_count == most_held) checked_fault("too many locks held", at, own.held[0].at);
  own.held[own.held_count++] = {lock, kind, at};
}

void drop_held(const void* lock) noexcept {
  unsigned i = 0;
  while (own.held[i].lock != lock)
    ++i;
  --own.held_count;
  for (; i < own.held_count; ++i)
    own.held[i] = own.held[i + 1];
}

/// Takes the records of locks in [begin, end) out of the graph.
void forget_range(const void* begin, const void* end) {
  lock_graph& g = graph();
  const std::scoped_lock guard(g.lock);
  auto first = g.records.lower_bound(begin);
  while (first != g.records.end() && first->first < end) {
    const void* gone = first->first;
    first = g.records.erase(first);
    for (auto& [lock, record] : g.records)
      record.after.erase(gone);
  }
}

}  // namespace

extern "C" {

void checked_fault(const char* what, code_place at, code_place earlier) noexcept {
  char text[512];
  int length = std::snprintf(text, sizeof text, "tarvelo kernel: %s", what);
  const auto append = [&](const char* word, code_place place) {
    if (!known(place) || length >= static_cast<int>(sizeof text)) return;
    length += std::snprintf(text + length, sizeof text - static_cast<unsigned>(length), " %s %s:%u",
                            word, place.file, place.line);
  };
  append("at", at);
  append("earlier", earlier);
  std::fprintf(stderr, "%s\n", text);
  std::abort();
}

void checked_observe_locks(void (*seen)(const void* lock, bool taken)) noexcept {
  own.observer = seen;
}

void checked_lock_acquire(const void* lock, lock_kind kind, code_place at) noexcept {
  if (own.observer != nullptr) own.observer(lock, true);
  if (const held_lock* held = find_held(lock)) {
    checked_fault("lock taken twice by one context", at, held->at);
  }
  if (kind == lock_kind::mutex) checked_might_sleep(at);
  lock_graph& g = graph();
  const std::scoped_lock guard(g.lock);
  check_order(&g, lock, at);
  lock_record& record = g.records[lock];
  record.taken_at = at;
  if (kind != lock_kind::mutex) check_softirq_use(&record, kind, at);
  push_held(lock, kind, at);
}

void checked_lock_release(const void* lock, lock_kind /*kind*/, code_place at) noexcept {
  if (own.observer != nullptr) own.observer(lock, false);
  if (find_held(lock) != nullptr) {
    drop_held(lock);
    return;
  }
  lock_graph& g = graph();
  const std::scoped_lock guard(g.lock);
  const auto record = g.records.find(lock);
  checked_fault("lock released by a context that does not hold it", at,
                record != g.records.end() ? record->second.taken_at : code_place{});
}

void checked_lock_forget(const void* lock, code_place at) noexcept {
  if (const held_lock* held = find_held(lock)) {
    checked_fault("lock forgotten while it is held", at, held->at);
  }
  forget_range(lock, static_cast<const char*>(lock) + 1);
}

void checked_might_sleep(code_place at) noexcept {
  if (hosted::in_softirq()) checked_fault("sleeping in softirq context", at, own.softirq_at);
  for (unsigned i = 0; i < own.held_count; ++i) {
    if (own.held[i].kind != lock_kind::mutex) {
      checked_fault("sleeping with a spinlock held", at, own.held[i].at);
    }
  }
  if (own.read_sides != 0) {
    checked_fault("sleeping inside an RCU read side", at, own.read_side[own.read_sides - 1]);
  }
}

void checked_rcu_enter(code_place at) noexcept {
  if (own.read_sides == most_read_sides) {
    checked_fault("RCU read sides nested too deep", at, own.read_side[0]);
  }
  own.read_side[own.read_sides++] = at;
}

void checked_rcu_exit(code_place at) noexcept {
  if (own.read_sides == 0) {
    checked_fault("RCU read side left that was not entered", at, own.read_side[0]);
  }
  --own.read_sides;
}

void checked_rcu_held(code_place at) noexcept {
  if (own.read_sides == 0 && !hosted::in_softirq()) {
    checked_fault("not inside an RCU read side", at, {});
  }
}

}  // extern "C"

namespace hosted {

void checked_softirq_enter(code_place at) noexcept {
  own.softirq_at = at;
  own.held_before_softirq = own.held_count;
}

void checked_softirq_leave(code_place at) noexcept {
  if (own.held_count > own.held_before_softirq) {
    checked_fault("lock held at the end of softirq context", at, own.held[own.held_count - 1].at);
  }
}

void checked_not_in_softirq(const char* what, code_place at) noexcept {
  if (in_softirq()) checked_fault(what, at, own.softirq_at);
}

void checked_might_lock(const void* lock, code_place at) noexcept {
  if (own.held_count == 0 || find_held(lock) != nullptr) return;
  lock_graph& g = graph();
  const std::scoped_lock guard(g.lock);
  check_order(&g, lock, at);
}

checked_scope::checked_scope(const void* place, code_place at) noexcept
    : place_(place), at_(at), outermost_(find_held(place) == nullptr) {
  if (!outermost_) return;
  checked_might_lock(place, at);
  push_held(place, lock_kind::spin, at);
}

checked_scope::~checked_scope() {
  if (outermost_) drop_held(place_);
}

void checked_memory_freed(const void* memory, std::size_t size) noexcept {
  const void* end = static_cast<const char*>(memory) + size;
  for (unsigned i = 0; i < own.held_count; ++i) {
    if (own.held[i].lock >= memory && own.held[i].lock < end) {
      checked_fault("memory freed with a lock in it held", {}, own.held[i].at);
    }
  }
  forget_range(memory, end);
}

}  // namespace hosted
