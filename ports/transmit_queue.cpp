// SPDX-License-Identifier: GPL-2.0-only
#include "ports/transmit_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>

#include "ports/offload.h"

namespace tarvelo::ports {

transmit_queue::~transmit_queue() {
  for (u32 i = 0; i < count_; ++i)
    kfree_skb(frames_[i]);
}

bool transmit_queue::push(sk_buff* skb) noexcept {
  frames_[count_++] = skb;
  return count_ < frames_.size();
}

transmit_queue::result transmit_queue::flush(int socket) noexcept {
  offload_header nothing_left_to_do{};
  std::array<iovec, std::size_t{2} * batch_frames> pieces;
  std::array<mmsghdr, batch_frames> messages{};
  for (u32 i = 0; i < count_; ++i) {
    iovec* frame = &pieces[std::size_t{2} * i];
    frame[0] = {&nothing_left_to_do, sizeof nothing_left_to_do};
    frame[1] = {frames_[i]->data, frames_[i]->len};
    messages[i].msg_hdr.msg_iov = frame;
    messages[i].msg_hdr.msg_iovlen = 2;
  }

  result total{};
  u32 next = 0;
  while (next < count_) {
    const int done = sendmmsg(socket, &messages[next], count_ - next, MSG_DONTWAIT);
    if (done > 0) {
      total.sent += static_cast<u32>(done);
      next += static_cast<u32>(done);
    } else if (errno != EINTR) {
      // The error is the first frame's; those behind it get their own chance.
      ++total.failed;
      ++next;
    }
  }
  for (u32 i = 0; i < count_; ++i)
    kfree_skb(frames_[i]);
  count_ = 0;
  return total;
}

}  // namespace tarvelo::ports
