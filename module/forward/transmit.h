// SPDX-License-Identifier: GPL-2.0-only
//
// The last step of both paths, and the buffer's header offsets. Offsets count from `head`; 0 means
// unset.
#pragma once

#include "kernel/fast_path.h"
#include "kernel/skbuff.h"
#include "module/core/counters.h"
#include "module/forward/frame.h"
#include "module/forward/hooks.h"

namespace tarvelo {

inline void vok_skb_reset_mac_header(sk_buff* skb) {
  skb->mac_header = static_cast<u16>(skb->data - skb->head);
}
inline void vok_skb_reset_network_header(sk_buff* skb, const u8* header) {
  skb->network_header = static_cast<u16>(header - skb->head);
}
inline void vok_skb_reset_transport_header(sk_buff* skb, const u8* header) {
  skb->transport_header = static_cast<u16>(header - skb->head);
}
inline void vok_set_mac_and_network_header(sk_buff* skb) {
  skb->mac_header = 0;
  skb->network_header = 0;
}

/// The slow half of vok_xmit_skb().
[[nodiscard]] int xmit_after_hooks(sk_buff* skb, u8 pf);

/// Marks the buffer as sent by the fast path, runs the transmit hooks and hands it to its device;
/// softirq context, no lock of the module held. 0 when the buffer is gone; otherwise the driver's
/// error, and the buffer is still the caller's.
[[nodiscard]] inline int vok_xmit_skb(sk_buff* skb, u8 pf) {
  skb->fast_flags |= fast_flag::sent_fast;
  if (read_once(g_vok_slow_xmit_enable) != 0) skb->fast_flags |= fast_flag::slow_xmit;
  if (has_hooks(hook_list(static_cast<family>(pf), VOK_HOOK_XMIT))) [[unlikely]]
    return xmit_after_hooks(skb, pf);
  return km_fast_xmit_skb(skb);
}

/// The same, and frees what the driver refuses together with the connection it carries.
inline void send(sk_buff* skb, family pf) {
  if (vok_xmit_skb(skb, static_cast<u8>(pf)) == 0) [[likely]]
    return;
  nf_reset(skb);
  kfree_skb(skb);
}

}  // namespace tarvelo
