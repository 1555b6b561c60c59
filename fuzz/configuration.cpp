// SPDX-License-Identifier: GPL-2.0-only
//
// Any text as a configuration file. It is refused in one line that says so, or a router can be
// built from it.
#include "app/config.h"
#include "app/input_error.h"
#include "fuzz/memory_file.h"

namespace {

const net_device_ops driver = {.ndo_start_xmit = [](sk_buff* skb, net_device*) {
  kfree_skb(skb);
  return NETDEV_TX_OK;
}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  using namespace tarvelo;
  const fuzz::memory_file file(data, size);
  try {
    const app::app_config config = app::load_config(file.path());
    const stack::router router(config.router, &driver);
  } catch (const app::input_error& refused) {
    const std::string line = refused.what();
    if (line.empty() || line.find('\n') != std::string::npos) fuzz::fail("no line: " + line);
  }
  return 0;
}
