// SPDX-License-Identifier: GPL-2.0-only
//
// What PPP interfaces would have counted, had the frame gone through them: called when the frame
// has the length to be counted. Between two PPP interfaces an entry names the input's; the output's
// is the device of the connection's record, where that is one.
#pragma once

#include "kernel/skbuff.h"
#include "module/forward/passage.h"

namespace tarvelo {

/// After the received encapsulation is off.
void account_received(const sk_buff* skb, const passage& way);

/// After an encapsulation was put on, or a PPPoE frame re-labelled.
void account_sent(const sk_buff* skb, const passage& way);

}  // namespace tarvelo
