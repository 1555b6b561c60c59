// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel's circular doubly linked list: a head linked to itself is empty. Objects embed a
// list_head and are found again with list_entry().
#pragma once

#include "kernel/types.h"

struct list_head {
  list_head* next;
  list_head* prev;
};

inline void INIT_LIST_HEAD(list_head* head) noexcept {
  head->next = head;
  head->prev = head;
}

[[nodiscard]] inline bool list_empty(const list_head* head) noexcept {
  return head->next == head;
}

inline void list_add_tail(list_head* entry, list_head* head) noexcept {
  entry->next = head;
  entry->prev = head->prev;
  head->prev->next = entry;
  head->prev = entry;
}

inline void list_del_init(list_head* entry) noexcept {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
  INIT_LIST_HEAD(entry);
}

/// The object that embeds `link` at `Offset`: list_entry<T, offsetof(T, link)>(link).
template <typename Object, std::size_t Offset>
[[nodiscard]] inline Object* list_entry(list_head* link) noexcept {
  return reinterpret_cast<Object*>(reinterpret_cast<char*>(link) - Offset);
}
