// SPDX-License-Identifier: GPL-2.0-only
#include "ports/capture_port.h"

#include <algorithm>
#include <cstring>

namespace tarvelo::ports {

capture_port::capture_port(const std::string& input, const std::string& output, link_layer link,
                           transmit_observer& observer)
    : link_(link), observer_(observer), writer_(output, link) {
  if (input.empty()) return;
  reader_.emplace(input, link);
  read_ahead();
}

void capture_port::read_ahead() {
  ahead_ = reader_->next();
  if (!ahead_) {
    next_time_.reset();
  } else {
    next_time_ = next_time_ ? std::max(*next_time_, ahead_->time) : ahead_->time;
  }
}

bool capture_port::receive(std::vector<sk_buff*>& into) {
  if (!ahead_) return false;
  const auto bytes = ahead_->bytes;
  sk_buff* skb = nullptr;
  if (bytes.size() <= max_frame_length) {
    skb = alloc_receive_buffer(static_cast<u32>(bytes.size()));
  }
  if (skb == nullptr) {
    receive_errors_.fetch_add(1, std::memory_order_relaxed);
  } else {
    const auto length = static_cast<u32>(bytes.size());
    if (length != 0) std::memcpy(skb_put(skb, length), bytes.data(), length);
    finish_received(skb, device(), link_);
    received_.fetch_add(1, std::memory_order_relaxed);
    into.push_back(skb);
  }
  read_ahead();
  return true;
}

void capture_port::transmit(sk_buff* skb) noexcept {
  writer_.write(observer_.sent(device(), skb), {skb->data, skb->len});
  sent_.fetch_add(1, std::memory_order_relaxed);
  kfree_skb(skb);
}

void capture_port::close() {
  writer_.close();
}

}  // namespace tarvelo::ports
