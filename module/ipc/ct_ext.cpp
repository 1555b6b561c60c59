// SPDX-License-Identifier: GPL-2.0-only
#include "module/ipc/ct_ext.h"

#include "kernel/printk.h"
#include "kernel/slab.h"

namespace tarvelo {
namespace {

constinit kmem_cache* record_cache = nullptr;

constexpr int create_failed_line = 4277;
constexpr int no_cache_line = 3169;
constexpr int alloc_failed_line = 3174;

}  // namespace

bool _vok_memory_cache_init() {
  record_cache = kmem_cache_create("vok_ct_ext", sizeof(vok_ct_ext), 0, 0, nullptr);
  if (record_cache != nullptr) return true;
  printk("%s %d: vok_ct_ext cache create failed\n", "_vok_memory_cache_init", create_failed_line);
  return false;
}

void memory_cache_destroy() {
  kmem_cache_destroy(record_cache);
  record_cache = nullptr;
}

int _vok_nf_conntrack_ext_alloc(nf_conn* ct) {
  if (record_cache == nullptr) {
    printk("%s %d: vok_ct_ext cache create failed\n", "_vok_nf_conntrack_ext_alloc", no_cache_line);
    return -1;
  }
  void* record = kmem_cache_alloc(record_cache, GFP_ATOMIC | __GFP_ZERO);
  if (record == nullptr) {
    printk("%s %d: kmalloc failed\n", "_vok_nf_conntrack_ext_alloc", alloc_failed_line);
    return -1;
  }
  ct->vok_ext = static_cast<vok_ct_ext*>(record);
  return 0;
}

int _vok_nf_conntrack_ext_free(nf_conn* ct) {
  if (ct->vok_ext == nullptr) return -1;
  kmem_cache_free(record_cache, ct->vok_ext);
  ct->vok_ext = nullptr;
  return 0;
}

}  // namespace tarvelo
