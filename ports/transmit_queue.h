// SPDX-License-Identifier: GPL-2.0-only
//
// Frames on their way to a packet socket, collected so that one system call sends many.
//
// A queue belongs to one thread. The socket expects an offload header before each frame; it is all
// zeros here, because the router only sends finished frames. What the interface does not take is
// dropped and counted, never retried: a router that waits for a full interface loses the frames of
// all others.
#pragma once

#include <array>

#include "kernel/skbuff.h"
#include "kernel/types.h"

namespace tarvelo::ports {

/// Frames of one system call, sent or received. Larger batches gain a tenth and cost latency.
inline constexpr u32 batch_frames = 64;

class transmit_queue {
 public:
  transmit_queue() = default;
  /// Frees what was not flushed.
  ~transmit_queue();
  transmit_queue(const transmit_queue&) = delete;
  transmit_queue& operator=(const transmit_queue&) = delete;

  /// Takes the buffer. False when the queue is full now and wants to be flushed.
  [[nodiscard]] bool push(sk_buff* skb) noexcept;
  [[nodiscard]] bool empty() const noexcept { return count_ == 0; }

  struct result {
    u32 sent;
    u32 failed;
  };
  /// Sends everything to `socket` without waiting. The queue is empty afterwards.
  result flush(int socket) noexcept;

 private:
  std::array<sk_buff*, batch_frames> frames_;
  u32 count_ = 0;
};

}  // namespace tarvelo::ports
