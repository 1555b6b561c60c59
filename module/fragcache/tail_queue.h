// SPDX-License-Identifier: GPL-2.0-only
//
// A queue that is appended to at its tail and unlinked from anywhere, both in constant time. An
// entry embeds one `tail_link` for each queue it may be in; the operations are told which.
//
// Each link knows the pointer that points at its entry, and the queue knows the null pointer that
// the next entry is stored in. The latter lies inside the queue while it is empty, so a queue must
// be made empty where it stands and cannot be copied afterwards.
//
// The caller holds whatever guards the queue.
#pragma once

#include "kernel/types.h"

namespace tarvelo {

template <typename Entry>
struct tail_link {
  Entry* next;
  Entry** pointed_from;  ///< the pointer that holds this entry
};

template <typename Entry>
struct tail_queue {
  Entry* first;  ///< null when empty
  Entry** end;   ///< the pointer that the next appended entry is stored in
};

template <typename Entry>
inline void make_empty(tail_queue<Entry>& queue) {
  queue.first = nullptr;
  queue.end = &queue.first;
}

template <auto Link, typename Entry>
inline void append(tail_queue<Entry>& queue, Entry* entry) {
  (entry->*Link).next = nullptr;
  (entry->*Link).pointed_from = queue.end;
  *queue.end = entry;
  queue.end = &(entry->*Link).next;
}

/// `entry` must be in `queue`.
template <auto Link, typename Entry>
inline void unlink_from(tail_queue<Entry>& queue, Entry* entry) {
  tail_link<Entry>& link = entry->*Link;
  if (link.next != nullptr) {
    (link.next->*Link).pointed_from = link.pointed_from;
  } else {
    queue.end = link.pointed_from;
  }
  *link.pointed_from = link.next;
}

}  // namespace tarvelo
