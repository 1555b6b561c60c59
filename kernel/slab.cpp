// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/slab.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "kernel/account.h"
#include "kernel/atomic.h"
#include "kernel/checked_internal.h"
#include "kernel/printk.h"

using hosted::account::kind;

struct kmem_cache {
  char name[32];
  std::size_t size;
  std::size_t align;
  void (*ctor)(void* object);
  atomic_t out;  ///< objects handed out and not yet returned
};

namespace {

/// What fresh memory holds in a checked build, so that nobody takes it for cleared.
constexpr int fresh_fill = 0x5a;

void prepare(void* memory, std::size_t size, gfp_t flags) noexcept {
  if ((flags & __GFP_ZERO) != 0) {
    std::memset(memory, 0, size);
  } else if constexpr (kernel_checked) {
    std::memset(memory, fresh_fill, size);
  }
}

void release(void* memory) noexcept {
  if constexpr (kernel_checked) {
    hosted::checked_memory_freed(memory, malloc_usable_size(memory));
  }
  std::free(memory);
}

}  // namespace

extern "C" {

void* hosted_kmalloc(std::size_t size, gfp_t flags) noexcept {
  if (!hosted::account::may_allocate()) return nullptr;
  void* memory = std::malloc(size);
  if (memory == nullptr) return nullptr;
  prepare(memory, size, flags);
  hosted::account::made(kind::allocation);
  return memory;
}

void kfree(const void* memory) noexcept {
  if (memory == nullptr) return;
  hosted::account::gone(kind::allocation);
  release(const_cast<void*>(memory));
}

kmem_cache* kmem_cache_create(const char* name, std::size_t size, std::size_t align,
                              unsigned long /*flags*/, void (*ctor)(void*)) noexcept {
  if (!hosted::account::may_allocate()) return nullptr;
  auto* cache = new (std::nothrow) kmem_cache{};
  if (cache == nullptr) return nullptr;
  std::strncpy(cache->name, name, sizeof cache->name - 1);
  cache->size = size;
  cache->align = align > alignof(std::max_align_t) ? align : alignof(std::max_align_t);
  cache->ctor = ctor;
  hosted::account::made(kind::slab_cache);
  return cache;
}

void kmem_cache_destroy(kmem_cache* cache) noexcept {
  if (cache == nullptr) return;
  const s32 out = atomic_read(&cache->out);
  if (out != 0) {
    // The objects may still come back, and need the cache then: rather keep it than crash.
    printk(KERN_ERR "slab cache %s: destroyed with %d objects in use\n", cache->name, out);
    return;
  }
  hosted::account::gone(kind::slab_cache);
  delete cache;
}

void* hosted_kmem_cache_alloc(kmem_cache* cache, gfp_t flags) noexcept {
  if (!hosted::account::may_allocate()) return nullptr;
  // aligned_alloc() wants a multiple of the alignment.
  const std::size_t room = (cache->size + cache->align - 1) / cache->align * cache->align;
  void* object = std::aligned_alloc(cache->align, room);
  if (object == nullptr) return nullptr;
  prepare(object, cache->size, flags);
  if (cache->ctor != nullptr) cache->ctor(object);
  atomic_inc(&cache->out);
  hosted::account::made(kind::slab_object);
  return object;
}

void kmem_cache_free(kmem_cache* cache, void* object) noexcept {
  if (object == nullptr) return;
  atomic_dec(&cache->out);
  hosted::account::gone(kind::slab_object);
  release(object);
}

}  // extern "C"
