// SPDX-License-Identifier: GPL-2.0-only
#include "stack/stack_core.h"

namespace tarvelo::stack {

namespace {
stack_core* the_core = nullptr;
}  // namespace

stack_core& core() noexcept {
  return *the_core;
}

void set_core(stack_core* record) noexcept {
  the_core = record;
}

receive_verdict discard(sk_buff* skb, code_place at) noexcept {
  kfree_skb(skb, at);
  return receive_verdict::dropped;
}

}  // namespace tarvelo::stack
