// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/transmit.h"

#include "kernel/fast_path.h"
#include "module/core/counters.h"
#include "module/forward/hooks.h"

namespace tarvelo {
namespace {

[[nodiscard]] unsigned run_transmit_hooks(sk_buff* skb, u8 pf) {
  vok_hook_list* head = hook_list(static_cast<family>(pf), VOK_HOOK_XMIT);
  if (!has_hooks(head)) return VOK_ACCEPT;
  return _vok_iterate(head, skb, VOK_HOOK_XMIT, pf, any_priority);
}

}  // namespace

int vok_xmit_skb(sk_buff* skb, u8 pf) {
  skb->fast_flags |= fast_flag::sent_fast;
  if (read_once(g_vok_slow_xmit_enable) != 0) skb->fast_flags |= fast_flag::slow_xmit;
  switch (run_transmit_hooks(skb, pf)) {
    case VOK_ACCEPT:
      break;
    case VOK_DROP:
      kfree_skb(skb);
      return 0;
    case VOK_DIVERT:
      return 0;
    default:
      // The frame is complete: a faulty hook is no reason to lose it.
      report_bad_verdict(VOK_HOOK_XMIT);
      break;
  }
  return km_fast_xmit_skb(skb);
}

void send(sk_buff* skb, family pf) {
  if (vok_xmit_skb(skb, static_cast<u8>(pf)) == 0) return;
  nf_reset(skb);
  kfree_skb(skb);
}

}  // namespace tarvelo
