// SPDX-License-Identifier: GPL-2.0-only
//
// A buffer is one block of memory: the record and its room. Blocks of the usual size are kept for
// reuse by the thread that freed them, so that a packet costs neither the allocator's lock nor a
// cold cache line. Checked and sanitizer builds keep none, see skb_quarantine.h.
#include "kernel/skbuff.h"

#include <cstdlib>
#include <cstring>

#include "kernel/account.h"
#include "kernel/printk.h"
#include "kernel/route.h"
#include "kernel/sanitizers.h"
#include "kernel/skb_quarantine.h"
#include "kernel/slab.h"

using hosted::account::kind;

namespace {

#if defined(HOSTED_ASAN) || defined(HOSTED_TSAN)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif
constexpr bool reuse_blocks = !kernel_checked && !sanitized;

/// Room of a block that is kept for reuse: headroom, a frame of 1500 bytes with all its
/// encapsulations, and some to spare.
constexpr u32 usual_room = 2048;
constexpr u32 most_blocks_kept = 512;  ///< by each thread, about 1 MiB

/// Blocks of the usual room that this thread has freed.
struct block_cache {
  sk_buff* first;
  u32 vacant;  ///< blocks that it still takes; 0 before it is opened and once the thread ends
  bool opened;
};
thread_local constinit block_cache cache{};

struct cache_owner {
  ~cache_owner() {
    cache.vacant = 0;
    while (cache.first != nullptr) {
      sk_buff* skb = cache.first;
      cache.first = skb->next;
      std::free(skb);
    }
  }
};

/// Before the thread's first block; false when the cache is full or gone.
[[gnu::cold]] bool open_cache() noexcept {
  if (cache.opened) return false;
  thread_local const cache_owner owner;
  static_cast<void>(owner);
  cache.opened = true;
  cache.vacant = most_blocks_kept;
  return true;
}

sk_buff* take_block(u32 room) noexcept {
  if constexpr (reuse_blocks) {
    if (room <= usual_room && cache.first != nullptr) {
      sk_buff* skb = cache.first;
      cache.first = skb->next;
      ++cache.vacant;
      return skb;
    }
    if (room < usual_room) room = usual_room;
  }
  return static_cast<sk_buff*>(std::malloc(sizeof(sk_buff) + room));
}

/// A block has at least the usual room, whatever part of it the buffer was given.
[[nodiscard]] bool has_usual_room(const sk_buff* skb) noexcept {
  return skb->end - skb->head <= static_cast<std::ptrdiff_t>(usual_room);
}

void keep_block(sk_buff* skb) noexcept {
  skb->next = cache.first;
  cache.first = skb;
  --cache.vacant;
}

[[maybe_unused]] void give_block(sk_buff* skb) noexcept {
  if (reuse_blocks && has_usual_room(skb) && (cache.vacant != 0 || open_cache())) {
    keep_block(skb);
  } else {
    std::free(skb);
  }
}

/// True when nothing but the connection is to be dropped and no step takes a call.
[[nodiscard]] bool can_keep_at_once(const sk_buff* skb) noexcept {
  return reuse_blocks && skb->_skb_refdst == 0 && has_usual_room(skb) && cache.vacant != 0 &&
         hosted::account::own_shard != nullptr;
}

[[gnu::noinline]] void free_slowly(sk_buff* skb, code_place at) noexcept {
  if constexpr (kernel_checked) hosted::quarantine_check(skb, "buffer freed twice", at);
  skb_dst_drop(skb, at);
  nf_reset(skb, at);
  hosted::account::gone(kind::buffer);
  if constexpr (kernel_checked) {
    hosted::quarantine_free(skb, at);
  } else {
    give_block(skb);
  }
}

}  // namespace

extern "C" {

sk_buff* hosted_alloc_skb(u32 size) noexcept {
  if (!hosted::account::may_allocate()) return nullptr;
  sk_buff* skb = kernel_checked ? hosted::quarantine_alloc(size) : take_block(size);
  if (skb == nullptr) return nullptr;
  std::memset(skb, 0, sizeof *skb);
  skb->head = reinterpret_cast<u8*>(skb + 1);
  skb->data = skb->head;
  skb->end = skb->head + size;
  hosted::account::made(kind::buffer);
  return skb;
}

void hosted_kfree_skb(sk_buff* skb, const code_place* at) noexcept {
  if (skb == nullptr) return;
  if (!can_keep_at_once(skb)) [[unlikely]]
    return free_slowly(skb, at != nullptr ? *at : code_place{});
  nf_conntrack* nfct = skb->nfct;
  keep_block(skb);
  hosted::account::gone(kind::buffer);
  nf_conntrack_put(nfct);
}

sk_buff* skb_copy_plain(const sk_buff* skb, u32 tailroom, gfp_t flags) noexcept {
  const u32 headroom = skb_headroom(skb);
  sk_buff* copy = alloc_skb(headroom + skb->len + tailroom, flags);
  if (copy == nullptr) return nullptr;
  skb_reserve(copy, headroom);
  std::memcpy(skb_put(copy, skb->len), skb->data, skb->len);
  copy->dev = skb->dev;
  copy->rx_dev = skb->rx_dev;
  copy->priority = skb->priority;
  copy->protocol = skb->protocol;
  copy->mac_header = skb->mac_header;
  copy->network_header = skb->network_header;
  copy->transport_header = skb->transport_header;
  return copy;
}

void hosted_skb_no_room(const sk_buff* skb, u32 length, const code_place* at) noexcept {
  printk(KERN_ERR "buffer without room for %u more bytes: headroom %u, length %u, tailroom %u\n",
         length, skb_headroom(skb), skb->len, skb_tailroom(skb));
  checked_fault("buffer without room", *at, {});
}

void checked_skb_live(const sk_buff* skb, code_place at) noexcept {
  hosted::quarantine_check(skb, "buffer used after it was freed", at);
}

}  // extern "C"
