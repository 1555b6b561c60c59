// SPDX-License-Identifier: GPL-2.0-only
//
// A wheel of four levels of 256 slots: level n holds the timers that are due within 256^(n+1)
// ticks, and its slots move down one level each time the level below has gone round. All of it is
// modular arithmetic on 32 bits, so the wrap of `jiffies` is a tick like any other.
//
// A timer's slot belongs to an expiry no later than the one it has: putting the expiry off leaves
// it in its slot, and it moves on when it is met there. `place <= expires` is what the store in
// mod_timer_pending() keeps without the lock.
#include "kernel/timer.h"

#include <sched.h>

#include "kernel/checked_internal.h"
#include "kernel/context.h"
#include "kernel/jiffies.h"
#include "kernel/spinlock.h"

namespace {

constexpr unsigned levels = 4;
constexpr unsigned slot_bits = 8;
constexpr unsigned slots = 1U << slot_bits;
constexpr u32 slot_mask = slots - 1;
constexpr unsigned word_bits = 64;

/// Guarded by `lock` but for `running`, which is also read without it by the thread that runs.
struct timer_wheel {
  spinlock_t lock;
  u32 next_tick;  ///< the tick that advance_to() looks at next
  u32 pending;
  timer_list* running;
  list_head slot[levels][slots];
  u64 occupied[levels][slots / word_bits];  ///< a bit may be left set for a slot that is empty
};

constinit timer_wheel wheel{};

class wheel_guard {
 public:
  wheel_guard() noexcept { hosted::spin_acquire(&wheel.lock); }
  ~wheel_guard() { hosted::spin_release(&wheel.lock); }
  wheel_guard(const wheel_guard&) = delete;
  wheel_guard& operator=(const wheel_guard&) = delete;
};

u32 slot_of(unsigned level, u32 tick) noexcept {
  return (tick >> (level * slot_bits)) & slot_mask;
}

void mark(unsigned level, u32 index) noexcept {
  wheel.occupied[level][index / word_bits] |= u64{1} << (index % word_bits);
}

void unmark(unsigned level, u32 index) noexcept {
  wheel.occupied[level][index / word_bits] &= ~(u64{1} << (index % word_bits));
}

/// Ticks from `index` on to the first occupied slot of the level's current round; `slots - index`
/// when there is none.
u32 distance_to_occupied(unsigned level, u32 index) noexcept {
  for (u32 i = index; i < slots;) {
    const u64 ahead = wheel.occupied[level][i / word_bits] >> (i % word_bits);
    if (ahead != 0) return i + static_cast<u32>(__builtin_ctzll(ahead)) - index;
    i = (i / word_bits + 1) * word_bits;
  }
  return slots - index;
}

/// timer_pending() reads `next` without the lock, so every store to it is one store.
void link_last(list_head* entry, list_head* head) noexcept {
  entry->prev = head->prev;
  write_once(entry->next, head);
  write_once(head->prev->next, entry);
  head->prev = entry;
}

/// Puts a timer that is in no slot where its expiry belongs; one that is due already goes into the
/// slot that is looked at next.
void insert(timer_list* timer, u32 expires) noexcept {
  u32 ahead = expires - wheel.next_tick;
  if (static_cast<s32>(ahead) < 0) {
    ahead = 0;
    expires = wheel.next_tick;
  }
  unsigned level = 0;
  while (level + 1 < levels && (ahead >> ((level + 1) * slot_bits)) != 0)
    ++level;
  const u32 index = slot_of(level, expires);
  list_head* head = &wheel.slot[level][index];
  if (head->next == nullptr) INIT_LIST_HEAD(head);
  link_last(&timer->entry, head);
  mark(level, index);
}

void unlink(timer_list* timer) noexcept {
  write_once(timer->entry.prev->next, timer->entry.next);
  timer->entry.next->prev = timer->entry.prev;
  write_once(timer->entry.next, static_cast<list_head*>(nullptr));
  timer->entry.prev = nullptr;
}

timer_list* timer_of(list_head* entry) noexcept {
  return list_entry<timer_list, offsetof(timer_list, entry)>(entry);
}

/// Moves all timers of a slot to `to`, an unset head.
void take_slot(unsigned level, u32 index, list_head* to) noexcept {
  INIT_LIST_HEAD(to);
  unmark(level, index);
  list_head* head = &wheel.slot[level][index];
  if (head->next == nullptr || list_empty(head)) return;
  *to = *head;
  to->next->prev = to;
  write_once(to->prev->next, to);
  INIT_LIST_HEAD(head);
}

/// At the start of a round of the lowest level: brings down what is due within it.
void cascade() noexcept {
  for (unsigned level = 1; level < levels; ++level) {
    const u32 index = slot_of(level, wheel.next_tick);
    list_head moved;
    take_slot(level, index, &moved);
    while (!list_empty(&moved)) {
      timer_list* timer = timer_of(moved.next);
      unlink(timer);
      insert(timer, read_once(timer->expires));
    }
    if (index != 0) return;
  }
}

bool occupied(unsigned level, u32 index) noexcept {
  return (wheel.occupied[level][index / word_bits] >> (index % word_bits) & 1) != 0;
}

bool occupied_anywhere(unsigned level) noexcept {
  for (const u64 word : wheel.occupied[level]) {
    if (word != 0) return true;
  }
  return false;
}

/// True when cascade() would bring something down at `tick`, which starts a round below `level`.
bool cascade_due(unsigned level, u32 tick) noexcept {
  for (; level < levels; ++level) {
    const u32 index = slot_of(level, tick);
    if (occupied(level, index)) return true;
    if (index != 0) return false;
  }
  return false;
}

/// A tick not before `next_tick` and not after the first at which there is something to do. The
/// timers found ahead in a level's current round are due before any of the levels above; those
/// behind belong to its next round.
u32 next_event() noexcept {
  u32 tick = wheel.next_tick;
  for (unsigned level = 0; level < levels; ++level) {
    const u32 index = slot_of(level, tick);
    if (index == 0 && cascade_due(level + 1, tick)) return tick;
    const u32 distance = distance_to_occupied(level, index);
    const u32 event = tick + (distance << (level * slot_bits));
    if (index + distance < slots || occupied_anywhere(level)) return event;
    if (index != 0) tick = event;  // the level is empty: on to where the level above steps
  }
  return tick;
}

/// In a checked build the function itself has a place in the lock order: what it takes must not be
/// held by whoever waits for it.
void call(void (*function)(unsigned long), unsigned long data) noexcept {
  if constexpr (kernel_checked) {
    const hosted::checked_scope inside(reinterpret_cast<const void*>(function), code_place::here());
    function(data);
  } else {
    function(data);
  }
}

/// Runs one timer without the lock.
void run(timer_list* timer) noexcept {
  unlink(timer);
  --wheel.pending;
  void (*const function)(unsigned long) = timer->function;
  const unsigned long data = timer->data;
  wheel.running = timer;
  hosted::spin_release(&wheel.lock);
  call(function, data);  // from here on the timer may be gone
  hosted::spin_acquire(&wheel.lock);
  wheel.running = nullptr;
}

/// Runs what is due at `next_tick` and steps on.
void run_tick() noexcept {
  const u32 tick = wheel.next_tick;
  if (slot_of(0, tick) == 0) cascade();
  list_head due;
  take_slot(0, slot_of(0, tick), &due);
  __atomic_store_n(&jiffies, tick, __ATOMIC_RELAXED);
  wheel.next_tick = tick + 1;
  while (!list_empty(&due)) {
    timer_list* timer = timer_of(due.next);
    const u32 expires = read_once(timer->expires);
    if (time_after(expires, tick)) {
      unlink(timer);
      insert(timer, expires);
    } else {
      run(timer);
    }
  }
}

/// A timer that is not pending starts.
void start(timer_list* timer, u32 expires) noexcept {
  write_once(timer->expires, expires);
  insert(timer, expires);
  ++wheel.pending;
}

}  // namespace

namespace kernel_clock {

void start_at(u32 now) noexcept {
  const wheel_guard guard;
  __atomic_store_n(&jiffies, now, __ATOMIC_RELAXED);
  wheel.next_tick = now + 1;
}

void advance_to(u32 now) noexcept {
  const hosted::softirq_scope softirq;
  {
    const wheel_guard guard;
    while (wheel.pending != 0) {
      const u32 event = next_event();
      if (time_after(event, now)) break;
      wheel.next_tick = event;
      run_tick();
    }
    if (time_after_eq(now, wheel.next_tick)) wheel.next_tick = now + 1;
    __atomic_store_n(&jiffies, now, __ATOMIC_RELAXED);
  }
}

}  // namespace kernel_clock

extern "C" {

void setup_timer(timer_list* timer, void (*function)(unsigned long data),
                 unsigned long data) noexcept {
  *timer = {};
  timer->function = function;
  timer->data = data;
}

void add_timer(timer_list* timer) noexcept {
  mod_timer(timer, timer->expires);
}

int mod_timer(timer_list* timer, u32 expires) noexcept {
  const wheel_guard guard;
  const bool was_pending = timer_pending(timer);
  if (was_pending) {
    unlink(timer);
    --wheel.pending;
  }
  start(timer, expires);
  return was_pending ? 1 : 0;
}

int mod_timer_pending(timer_list* timer, u32 expires) noexcept {
  if (!timer_pending(timer)) return 0;
  u32 old = read_once(timer->expires);
  if (old == expires) return 1;
  // Exchanged, not stored: a shorter expiry set meanwhile has moved the timer's slot with it.
  if (time_after(expires, old) && __atomic_compare_exchange_n(&timer->expires, &old, expires, false,
                                                              __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    return 1;
  }
  const wheel_guard guard;
  if (!timer_pending(timer)) return 0;
  unlink(timer);
  --wheel.pending;
  start(timer, expires);
  return 1;
}

int del_timer(timer_list* timer) noexcept {
  const wheel_guard guard;
  if (!timer_pending(timer)) return 0;
  unlink(timer);
  --wheel.pending;
  return 1;
}

int hosted_del_timer_sync(timer_list* timer, const code_place* at) noexcept {
  if constexpr (kernel_checked) {
    hosted::checked_not_in_softirq("waiting for a timer in softirq context", *at);
    hosted::checked_might_lock(reinterpret_cast<const void*>(timer->function), *at);
  }
  int was_pending = 0;
  while (true) {
    {
      const wheel_guard guard;
      if (timer_pending(timer)) {
        unlink(timer);
        --wheel.pending;
        was_pending = 1;
      }
      if (wheel.running != timer) return was_pending;
    }
    sched_yield();
  }
}

}  // extern "C"
