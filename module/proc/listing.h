// SPDX-License-Identifier: GPL-2.0-only
//
// A hash table shown line by line: one template over a description of the table.
//
// The table's lock is held from start to stop, that is while one buffer of text is formatted. In
// between it is free, and the walk is resumed by position, counted from the head of the chain that
// it had come to: a walk from the first entry on would hold up the packet path at each read for as
// long as the table is large. Entries that come or go meanwhile may be shown twice or not at all.
// Lines are numbered for each open file, and a number is spent only on a
// line that fitted the buffer, so that a reader with a small buffer sees none missing.
//
// A description of a table is a type with
//   entry                           the entry's type, chained by `next`
//   bucket_count                    number of buckets
//   heads(ci)                       the bucket heads, null when there is no table
//   lock(ci), unlock(ci)            what guards the chains
//   show_header(m, ci)              printed before the first entry; `ci` may be null
//   show_entry(m, line, entry)      one line
#pragma once

#include "kernel/errno.h"
#include "kernel/netdevice.h"
#include "kernel/seq_file.h"
#include "kernel/wire/ip.h"
#include "module/core/handle.h"
#include "module/core/init.h"
#include "module/core/memory.h"

namespace tarvelo {

/// Kept with each open listing.
struct vok_iter_state {
  u32 bucket;      ///< where the entry last returned is
  u32 line;        ///< lines shown so far on this open file
  loff_type head;  ///< position of that bucket's first entry; 0 before the first walk
  vok_handle* ci;  ///< between start and stop: the handle whose lock is held, or null
};

template <typename Table>
struct listing {
  using entry = typename Table::entry;

  /// The walk holds its RCU read side as long as the lock, so that the handle stays.
  static void* start(seq_file* m, loff_type* pos) {
    vok_iter_state* state = state_of(m);
    rcu_read_lock();
    state->ci = handle_with_table();
    if (state->ci != nullptr) Table::lock(state->ci);
    if (*pos == 0) return SEQ_START_TOKEN;
    return entry_at(state, *pos);
  }

  static void stop(seq_file* m, void*) {
    vok_iter_state* state = state_of(m);
    if (state->ci != nullptr) Table::unlock(state->ci);
    state->ci = nullptr;
    rcu_read_unlock();
  }

  static void* next(seq_file* m, void* v, loff_type* pos) {
    ++*pos;
    vok_iter_state* state = state_of(m);
    return v == SEQ_START_TOKEN ? first_entry(state)
                                : entry_after(state, static_cast<entry*>(v), *pos);
  }

  static int show(seq_file* m, void* v) {
    vok_iter_state* state = state_of(m);
    if (v == SEQ_START_TOKEN) {
      Table::show_header(m, state->ci);
      return 0;
    }
    Table::show_entry(m, state->line + 1, *static_cast<const entry*>(v));
    if (!seq_has_overflowed(m)) ++state->line;
    return 0;
  }

  static constexpr seq_operations operations = {start, stop, next, show};

  static int open(inode*, file* f) {
    auto* state = static_cast<vok_iter_state*>(kzalloc(sizeof(vok_iter_state), GFP_KERNEL));
    if (state == nullptr) return -ENOMEM;
    const int error = seq_open(f, &operations);
    if (error != 0) {
      kfree(state);
      return error;
    }
    static_cast<seq_file*>(f->private_data)->private_data = state;
    return 0;
  }

 private:
  static vok_iter_state* state_of(seq_file* m) {
    return static_cast<vok_iter_state*>(m->private_data);
  }

  static vok_handle* handle_with_table() {
    vok_handle* ci = published_handle();
    return ci != nullptr && Table::heads(ci) != nullptr ? ci : nullptr;
  }

  /// The first entry in the state's bucket or behind it, or null.
  static entry* scan_from_bucket(vok_iter_state* state) {
    entry** heads = Table::heads(state->ci);
    while (state->bucket < Table::bucket_count && heads[state->bucket] == nullptr)
      ++state->bucket;
    return state->bucket < Table::bucket_count ? heads[state->bucket] : nullptr;
  }

  static entry* first_entry(vok_iter_state* state) {
    if (state->ci == nullptr) return nullptr;
    state->bucket = 0;
    state->head = 1;
    return scan_from_bucket(state);
  }

  /// The entry behind `e`, which is then at `pos`.
  static entry* entry_after(vok_iter_state* state, entry* e, loff_type pos) {
    if (e->next != nullptr) return e->next;
    ++state->bucket;
    state->head = pos;
    return scan_from_bucket(state);
  }

  static entry* entry_at(vok_iter_state* state, loff_type pos) {
    if (state->ci == nullptr) return nullptr;
    const bool ahead = state->head != 0 && pos >= state->head;
    entry* e = ahead ? scan_from_bucket(state) : first_entry(state);
    for (loff_type at = state->head; e != nullptr && at < pos; ++at)
      e = entry_after(state, e, at + 1);
    return e;
  }
};

[[nodiscard]] constexpr file_operations listing_file(int (*open)(inode* node, file* f)) {
  return {.owner = &__this_module,
          .llseek = seq_lseek,
          .read = seq_read,
          .write = nullptr,
          .open = open,
          .release = seq_release_private};
}

[[nodiscard]] inline const char* protocol_text(u8 protocol) {
  if (protocol == wire::ip_protocol::tcp) return "tcp";
  return protocol == wire::ip_protocol::udp ? "udp" : "undef";
}

[[nodiscard]] inline const char* device_text(const net_device* dev) {
  return dev != nullptr ? dev->name : "undef";
}

}  // namespace tarvelo
