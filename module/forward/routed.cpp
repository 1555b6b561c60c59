// SPDX-License-Identifier: GPL-2.0-only
#include "module/forward/routed.h"

namespace tarvelo {

fate forward_routed(vok_handle* ci, sk_buff* skb, const frame& f) {
  return routed_path<ipv4_path>::forward(ci, skb, f);
}

}  // namespace tarvelo
