// SPDX-License-Identifier: GPL-2.0-only
//
// Read sides and grace periods are liburcu's. The queue of deferred calls is kept here, because its
// own is invisible to ThreadSanitizer.
//
// What that sanitizer sees: the library is not built with it, so its waiting for readers is no
// synchronisation to the sanitizer, and every free after a grace period would be a race with the
// readers that it waited for. Nor may its inlined read sides be compiled here then: their half of
// the handshake (the reader's counter, and the futex word by which the last reader wakes the
// waiter) would be seen, the library's half not. So in such builds the read sides are the library's
// functions too, and what a grace period means is said in our own words: leaving a read side is a
// release and the end of a grace period an acquire of one token. No reader acquires it, so readers
// are not ordered against each other, nor a writer against a reader that it has not waited for: a
// missing grace period is still a race. Nothing has to be suppressed.
//
// The token says a little too much: it also orders readers that came after the grace period had
// begun. They cannot have seen what was taken away before.
#include "kernel/deferred_calls.h"
#include "kernel/rcupdate.h"
#include "kernel/sanitizers.h"

// After our own headers: this one defines macros with names of ours.
#ifndef HOSTED_TSAN
#define _LGPL_SOURCE
#endif
#include <urcu/urcu-memb.h>
#undef _LGPL_SOURCE

#include <condition_variable>
#include <mutex>
#include <thread>

#ifdef HOSTED_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace {

/// Where ThreadSanitizer is told that readers and grace periods meet.
[[maybe_unused]] constinit char grace_period_token = 0;

inline void reader_leaves() noexcept {
#ifdef HOSTED_TSAN
  __tsan_release(&grace_period_token);
#endif
}

inline void readers_have_left() noexcept {
#ifdef HOSTED_TSAN
  __tsan_acquire(&grace_period_token);
#endif
}

/// liburcu has to know every thread that reads.
thread_local constinit bool registered = false;

struct registration {
  registration() { urcu_memb_register_thread(); }
  ~registration() {
    urcu_memb_unregister_thread();
    registered = false;
  }
};

[[gnu::noinline]] void register_reader() noexcept {
  thread_local const registration own;
  static_cast<void>(own);
  registered = true;
}

/// The calls that wait for a grace period, in order, and the thread that makes them. Never
/// destroyed: its thread runs until the program ends.
class deferred_calls {
 public:
  static deferred_calls& instance() {
    static auto* const calls = new deferred_calls;
    return *calls;
  }

  void push(callback_head* head, void (*func)(callback_head*)) {
    head->next = nullptr;
    head->func = func;
    const std::scoped_lock guard(lock_);
    (last_ != nullptr ? last_->next : first_) = head;
    last_ = head;
    if (++pushed_ == called_ + 1) work_.notify_one();
  }

  /// Waits until everything pushed so far has been called.
  void drain() {
    std::unique_lock guard(lock_);
    const u64 target = pushed_;
    idle_.wait(guard, [&] { return called_ >= target; });
  }

 private:
  deferred_calls() {
    std::thread([this] { run(); }).detach();
  }

  [[noreturn]] void run() {
    while (true) {
      callback_head* batch = take();
      hosted_synchronize_rcu();
      u64 made = 0;
      while (batch != nullptr) {
        auto* const next = static_cast<callback_head*>(batch->next);
        batch->func(batch);
        batch = next;
        ++made;
      }
      const std::scoped_lock guard(lock_);
      called_ += made;
      idle_.notify_all();
    }
  }

  callback_head* take() {
    std::unique_lock guard(lock_);
    work_.wait(guard, [this] { return first_ != nullptr; });
    auto* const batch = static_cast<callback_head*>(first_);
    first_ = nullptr;
    last_ = nullptr;
    return batch;
  }

  std::mutex lock_;
  std::condition_variable work_;
  std::condition_variable idle_;
  void* first_ = nullptr;
  callback_head* last_ = nullptr;
  u64 pushed_ = 0;
  u64 called_ = 0;
};

}  // namespace

extern "C" {

void hosted_rcu_read_lock() noexcept {
  if (!registered) [[unlikely]]
    register_reader();
  urcu_memb_read_lock();
}

void hosted_rcu_read_unlock() noexcept {
  reader_leaves();
  urcu_memb_read_unlock();
}

void hosted_synchronize_rcu() noexcept {
  urcu_memb_synchronize_rcu();
  readers_have_left();
}

void call_rcu(callback_head* head, void (*func)(callback_head* head)) noexcept {
  deferred_calls::instance().push(head, func);
}

void hosted_rcu_barrier() noexcept {
  deferred_calls::instance().drain();
}

}  // extern "C"

void hosted::start_deferred_calls() {
  deferred_calls::instance();
}
