// SPDX-License-Identifier: GPL-2.0-only
//
// The last step of both paths, and the buffer's header offsets. Offsets count from `head`; 0 means
// unset.
#pragma once

#include "kernel/skbuff.h"
#include "module/forward/frame.h"

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

/// Marks the buffer as sent by the fast path, runs the transmit hooks and hands it to its device;
/// softirq context, no lock of the module held. 0 when the buffer is gone; otherwise the driver's
/// error, and the buffer is still the caller's.
[[nodiscard]] int vok_xmit_skb(sk_buff* skb, u8 pf);

/// The same, and frees what the driver refuses together with the connection it carries.
void send(sk_buff* skb, family pf);

}  // namespace tarvelo
