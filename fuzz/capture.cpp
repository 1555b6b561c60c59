// SPDX-License-Identifier: GPL-2.0-only
//
// Any bytes as a capture file: the first says of what kind of link, the rest are the file.
#include "fuzz/input_bytes.h"
#include "fuzz/memory_file.h"
#include "ports/capture_file.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace tarvelo;
  constexpr ports::link_layer links[] = {ports::link_layer::ethernet, ports::link_layer::raw_ip};
  fuzz::input_bytes input(data, size);
  const ports::link_layer link = input.one_of(links);
  const std::span<const u8> bytes = input.bytes();
  const fuzz::memory_file file(bytes.data(), bytes.size());
  try {
    ports::capture_reader reader(file.path(), link);
    while (reader.next()) {
    }
  } catch (const ports::capture_error&) {
    return 0;
  }
  return 0;
}
