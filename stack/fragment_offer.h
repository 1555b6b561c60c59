// SPDX-License-Identifier: GPL-2.0-only
//
// Fragments on their way past the fast path: those that it hands back because it does not know
// their datagram yet are noted as they were offered, and offered again when it has taken the
// datagram's first one. What is kept, and in which order it is given out, is the reassembly's.
//
// Nothing of this costs a frame anything that is no fragment, nor a fragment that the fast path
// takes while none waits.
#pragma once

#include <optional>

#include "kernel/fast_path.h"
#include "kernel/skbuff.h"
#include "stack/fragment_view.h"
#include "stack/reassembly.h"

namespace tarvelo::stack {

/// The fragment in a frame, `data` at the Ethernet header (at the IP header on a device without
/// one), when others wait that it may concern. No lock.
[[nodiscard]] std::optional<fragment_view> fragment_to_follow(const sk_buff* skb) noexcept;

/// The fast path has taken a fragment that came in by `dev`: offers what has waited for it. Softirq
/// context, stack's lock not held: what the fast path sends may need it. Returns the number of
/// frames that it has taken now; what it has not is lost.
u32 offer_followers(vok_handle* handle, const fragment_view& taken, const net_device* dev);

/// A frame as it was offered, when it holds a fragment that the fast path may take later. No lock.
[[nodiscard]] offered_frame note_offered(const sk_buff* skb) noexcept;

}  // namespace tarvelo::stack
