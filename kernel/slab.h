// SPDX-License-Identifier: GPL-2.0-only
//
// Memory. GFP_ATOMIC never sleeps and may be used in any context; GFP_KERNEL may sleep and is for
// process context. Every allocation returns null on failure and can be made to fail, see
// kernel/fault.h. Memory is not cleared unless said.
#pragma once

#include "kernel/checked.h"
#include "kernel/types.h"

inline constexpr gfp_t GFP_ATOMIC = 0x20;
inline constexpr gfp_t GFP_KERNEL = 0xd0;
inline constexpr gfp_t __GFP_WAIT = 0x10;  ///< may sleep
inline constexpr gfp_t __GFP_ZERO = 0x8000;

struct kmem_cache;

extern "C" {
[[nodiscard]] void* hosted_kmalloc(std::size_t size, gfp_t flags) noexcept;
/// Null is allowed.
void kfree(const void* memory) noexcept;

/// A cache of objects of one size; process context. Null on failure.
[[nodiscard]] kmem_cache* kmem_cache_create(const char* name, std::size_t size, std::size_t align,
                                            unsigned long flags, void (*ctor)(void*)) noexcept;
/// Objects still out are reported with the cache's name and count.
void kmem_cache_destroy(kmem_cache* cache) noexcept;
[[nodiscard]] void* hosted_kmem_cache_alloc(kmem_cache* cache, gfp_t flags) noexcept;
void kmem_cache_free(kmem_cache* cache, void* object) noexcept;
}

namespace hosted {

/// A checked build ends the program when an allocation that may sleep is made where nothing may.
inline void note_allocation([[maybe_unused]] gfp_t flags, [[maybe_unused]] code_place at) noexcept {
  if constexpr (kernel_checked) {
    if ((flags & __GFP_WAIT) != 0) checked_might_sleep(at);
  }
}

}  // namespace hosted

[[nodiscard]] inline void* kmalloc(std::size_t size, gfp_t flags,
                                   code_place at = code_place::here()) noexcept {
  hosted::note_allocation(flags, at);
  return hosted_kmalloc(size, flags);
}

[[nodiscard]] inline void* kzalloc(std::size_t size, gfp_t flags,
                                   code_place at = code_place::here()) noexcept {
  return kmalloc(size, flags | __GFP_ZERO, at);
}

[[nodiscard]] inline void* kmem_cache_alloc(kmem_cache* cache, gfp_t flags,
                                            code_place at = code_place::here()) noexcept {
  hosted::note_allocation(flags, at);
  return hosted_kmem_cache_alloc(cache, flags);
}
