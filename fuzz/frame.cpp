// SPDX-License-Identifier: GPL-2.0-only
//
// Any frame, on any port of a router that has a connection of every kind: the first byte is the
// port, the rest the frame. It comes in twice, so that what the first one has changed is met.
#include "fuzz/fuzzed_router.h"
#include "fuzz/input_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace tarvelo::fuzz;
  input_bytes input(data, size);
  const char* port = input.one_of(port_names);
  const std::span<const u8> frame = input.bytes();
  fuzzed_router router;
  router.load_module();
  router.open_conversations();
  router.receive(port, frame.data(), frame.size());
  router.receive(port, frame.data(), frame.size());
  return 0;
}
