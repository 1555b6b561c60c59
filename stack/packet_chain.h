// SPDX-License-Identifier: GPL-2.0-only
//
// Buffers that travel together, linked by `next` in order, owned by the chain. One owner at a time;
// no lock of its own.
#pragma once

#include <utility>

#include "kernel/skbuff.h"

namespace tarvelo::stack {

class packet_chain {
 public:
  packet_chain() = default;
  packet_chain(packet_chain&& other) noexcept
      : first_(std::exchange(other.first_, nullptr)), last_(std::exchange(other.last_, nullptr)) {}
  packet_chain& operator=(packet_chain&& other) noexcept {
    std::swap(first_, other.first_);
    std::swap(last_, other.last_);
    return *this;
  }
  ~packet_chain() {
    while (sk_buff* skb = pop())
      kfree_skb(skb);
  }

  /// The first buffer stays the chain's; null when it is empty.
  [[nodiscard]] const sk_buff* first() const noexcept { return first_; }

  void append(sk_buff* skb) noexcept {
    skb->next = nullptr;
    (last_ != nullptr ? last_->next : first_) = skb;
    last_ = skb;
  }

  /// The first buffer, unlinked and the caller's; null when there is none.
  [[nodiscard]] sk_buff* pop() noexcept {
    sk_buff* skb = first_;
    if (skb == nullptr) return nullptr;
    first_ = skb->next;
    if (first_ == nullptr) last_ = nullptr;
    skb->next = nullptr;
    return skb;
  }

 private:
  sk_buff* first_ = nullptr;
  sk_buff* last_ = nullptr;
};

}  // namespace tarvelo::stack
