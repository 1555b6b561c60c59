// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/transmit.h"

namespace tarvelo {

int xmit_after_hooks(sk_buff* skb, u8 pf) {
  vok_hook_list* head = hook_list(static_cast<family>(pf), VOK_HOOK_XMIT);
  switch (_vok_iterate(head, skb, VOK_HOOK_XMIT, pf, any_priority)) {
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

}  // namespace tarvelo
