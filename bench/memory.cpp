// SPDX-License-Identifier: GPL-2.0-only
#include "bench/memory.h"

#include <malloc.h>

#include <cstdio>

#include "bench/subject.h"
#include "kernel/module_loader.h"
#include "module/core/handle.h"
#include "module/core/init.h"

namespace tarvelo::bench {
namespace {

std::size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

constexpr std::size_t table_heads =
    std::size_t{ipc_buckets} + std::size_t{ipc_v6_buckets} + std::size_t{brc_buckets};

}  // namespace

void print_memory() {
  constexpr std::size_t bytes_of_a_32_bit_pointer = 4;
  constexpr std::size_t entry_on_32_bits = 88;
  std::printf("memory\n");
  std::printf("  tables of an empty module, 32 bits:       %zu bytes\n",
              table_heads * bytes_of_a_32_bit_pointer);
  std::printf("  tables of an empty module, here:          %zu bytes\n",
              table_heads * sizeof(void*));
  const std::size_t before = heap_in_use();
  std::string error;
  auto module = loaded_module::load_linked(&init_module, &cleanup_module, &__this_module, &error);
  if (module == nullptr) wrong("the module does not load: " + error);
  std::printf("  heap taken by loading, here:              %zu bytes\n", heap_in_use() - before);
  std::printf("  an entry without a PPPoE side, 32 bits:   %zu bytes\n", entry_on_32_bits);
  std::printf("  an entry without a PPPoE side, here:      %zu bytes\n",
              static_cast<std::size_t>(ipc_entry_size::no_pppoe));
}

}  // namespace tarvelo::bench
