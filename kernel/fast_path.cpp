// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/fast_path.h"

#include "kernel/netdevice_internal.h"

extern "C" {

vok_handle* kcih = nullptr;

int km_fast_xmit_skb(sk_buff* skb) noexcept {
  return hosted::start_xmit(skb);
}

}  // extern "C"
