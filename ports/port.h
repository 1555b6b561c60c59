// SPDX-License-Identifier: GPL-2.0-only
//
// A port: where frames come in and go out. A back end stands behind each port and raw-IP device of
// the router and is what the device's `priv` points to.
//
// Frames come in as the router wants them: linear, unshared, at least `receive_headroom` bytes of
// headroom, the tag in line and `priority` its 3 bits, checksums complete, no larger than the
// wire's frames. receive() is called by one thread at a time, the port's worker, in softirq
// context. transmit() is called from any thread and collects frames for the calling processor;
// flush() sends what the calling processor has collected, so every thread that may have sent
// flushes before it waits.
#pragma once

#include <atomic>
#include <span>
#include <stdexcept>
#include <vector>

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"
#include "kernel/types.h"
#include "ports/segmentation.h"

namespace tarvelo::ports {

/// A port that cannot be set up; what() says what and the cure, in one line.
class port_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Room for every header that can be put in front of a frame, twice what the module asks for at
/// most, and of two tags.
inline constexpr u32 receive_headroom = 128 + 64;
/// The longest frame that makes sense: the longest IP packet behind Ethernet and two tags. Longer
/// ones do not fit a buffer's 16-bit offsets.
inline constexpr u32 max_frame_length = 65535 + 14 + 8;

struct port_statistics {
  u64 received;  ///< frames, after cutting
  u64 sent;
  u64 receive_errors;   ///< lost to a lack of memory or to offloads that make no sense
  u64 transmit_errors;  ///< frames that the interface or file did not take
};

class port {
 public:
  port() = default;
  virtual ~port() = default;
  port(const port&) = delete;
  port& operator=(const port&) = delete;

  /// The device that received frames are for; set before the first receive().
  void attach(net_device* dev) noexcept;
  [[nodiscard]] net_device* device() const noexcept { return dev_; }

  /// Appends the frames that are there, about a batch of them, without waiting. The caller owns
  /// them. False when there were none.
  [[nodiscard]] virtual bool receive(std::vector<sk_buff*>& into) = 0;
  /// Takes the buffer in any case; what cannot be sent is counted.
  virtual void transmit(sk_buff* skb) noexcept = 0;
  virtual void flush() noexcept {}
  /// Becomes readable when receive() would find frames; -1 when it is never worth waiting for.
  [[nodiscard]] virtual int poll_fd() const noexcept { return -1; }

  [[nodiscard]] port_statistics statistics() const noexcept;

 protected:
  std::atomic<u64> received_{0};
  std::atomic<u64> sent_{0};
  std::atomic<u64> receive_errors_{0};
  std::atomic<u64> transmit_errors_{0};

 private:
  net_device* dev_ = nullptr;
};

/// For the router: hands a device's frames to the port in its `priv`; a device without one loses
/// them.
extern const net_device_ops port_device_ops;

/// An empty buffer with the headroom of a received frame and `room` bytes after it; null without
/// memory.
[[nodiscard]] sk_buff* alloc_receive_buffer(u32 room) noexcept;
/// Sets what a received frame carries besides its bytes: device and priority.
void finish_received(sk_buff* skb, net_device* dev, link_layer link) noexcept;
/// The link layer of a port's device.
[[nodiscard]] link_layer link_layer_of(const net_device* dev) noexcept;

}  // namespace tarvelo::ports
