// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/skb_quarantine.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kernel/checked.h"
#include "kernel/sanitizers.h"

#ifdef HOSTED_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace hosted {

namespace {

constexpr u32 live_mark = 0x6c697665;
constexpr u32 freed_mark = 0x66726565;
constexpr u8 freed_fill = 0x6b;
constexpr unsigned most_kept = 1024;

struct alignas(16) tag {
  u32 mark;
  u32 size;  ///< of what follows the tag
  code_place freed_at;
};

constinit std::mutex lock;
constinit tag* kept[most_kept] = {};
constinit unsigned oldest = 0;

tag* tag_of(const sk_buff* skb) noexcept {
  return reinterpret_cast<tag*>(const_cast<sk_buff*>(skb)) - 1;
}

void poison([[maybe_unused]] tag* t) noexcept {
  std::memset(t + 1, freed_fill, t->size);
#ifdef HOSTED_ASAN
  ASAN_POISON_MEMORY_REGION(t + 1, t->size);
#endif
}

/// Lets a block go that was kept, after a look whether somebody wrote to it.
void release(tag* t) noexcept {
#ifdef HOSTED_ASAN
  ASAN_UNPOISON_MEMORY_REGION(t + 1, t->size);
#endif
  const u8* bytes = reinterpret_cast<const u8*>(t + 1);
  for (u32 i = 0; i < t->size; ++i) {
    if (bytes[i] != freed_fill) checked_fault("buffer written after it was freed", {}, t->freed_at);
  }
  std::free(t);
}

}  // namespace

sk_buff* quarantine_alloc(u32 room) noexcept {
  const u32 size = static_cast<u32>(sizeof(sk_buff)) + room;
  auto* t = static_cast<tag*>(std::malloc(sizeof(tag) + size));
  if (t == nullptr) return nullptr;
  t->mark = live_mark;
  t->size = size;
  t->freed_at = {};
  return reinterpret_cast<sk_buff*>(t + 1);
}

void quarantine_free(sk_buff* skb, code_place at) noexcept {
  tag* t = tag_of(skb);
  t->mark = freed_mark;
  t->freed_at = at;
  poison(t);
  tag* leaving = nullptr;
  {
    const std::scoped_lock guard(lock);
    leaving = kept[oldest];
    kept[oldest] = t;
    oldest = (oldest + 1) % most_kept;
  }
  if (leaving != nullptr) release(leaving);
}

void quarantine_check(const sk_buff* skb, const char* what, code_place at) noexcept {
  const tag* t = tag_of(skb);
  if (t->mark == live_mark) return;
  checked_fault(what, at, t->mark == freed_mark ? t->freed_at : code_place{});
}

}  // namespace hosted
