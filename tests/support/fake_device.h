// SPDX-License-Identifier: GPL-2.0-only
//
// A network device for tests that keeps what is sent on it, and helpers to make the buffers that a
// driver would hand up.
#pragma once

#include <string>
#include <vector>

#include "kernel/netdevice.h"
#include "kernel/skbuff.h"
#include "tests/support/net_text.h"

namespace tarvelo::test {

/// A buffer as it reached the driver.
struct sent_frame {
  bytes data;
  u32 fast_flags;
  u32 priority;
  u16 mac_header;      ///< from `head`, as in the buffer
  u16 network_header;  ///< from `head`
  u16 headroom;        ///< from `head` to the data
  u16 protocol;        ///< network order
  u8 nfctinfo;
  const nf_conntrack* nfct;  ///< what it carried; only to compare
  bool had_route;

  /// What the driver sees of the link-layer header's length.
  [[nodiscard]] int network_minus_mac() const { return network_header - mac_header; }
};

enum class driver_mode : u8 {
  accept,
  refuse,  ///< ndo_start_xmit returns an error and leaves the buffer
};

/// Registered and up from its construction to its end. Not for two threads at once.
class fake_device {
 public:
  /// `address` is its MAC address. Any `type` but Ethernet makes a point-to-point device, whose
  /// buffers have no link-layer header.
  explicit fake_device(const std::string& name, std::string_view address = "02:00:00:00:00:01",
                       u16 type = ARPHRD_ETHER);
  ~fake_device();
  fake_device(const fake_device&) = delete;
  fake_device& operator=(const fake_device&) = delete;

  [[nodiscard]] net_device* get() const { return dev_; }
  net_device* operator->() const { return dev_; }
  operator net_device*() const { return dev_; }

  void set_mode(driver_mode mode) { mode_ = mode; }
  void up() { dev_open(dev_); }
  void down() { dev_close(dev_); }

  [[nodiscard]] const std::vector<sent_frame>& sent() const { return sent_; }
  /// What was sent since the last call.
  [[nodiscard]] std::vector<sent_frame> take();

  [[nodiscard]] static const net_device_ops* ops();

 private:
  static int start_xmit(sk_buff* skb, net_device* dev);

  net_device* dev_;
  driver_mode mode_ = driver_mode::accept;
  std::vector<sent_frame> sent_;
};

/// What every offered buffer has in front of its data, at the least.
inline constexpr u32 receive_headroom = 128;

/// A received buffer: linear, `dev` and `rx_dev` set, `priority` from the tag, all else 0. The
/// caller owns it.
/// FRAME_OFFSET in the environment puts each that many bytes further on in memory.
[[nodiscard]] sk_buff* make_skb(const bytes& frame, net_device* dev,
                                u32 headroom = receive_headroom);
/// The data of a buffer.
[[nodiscard]] bytes bytes_of(const sk_buff* skb);

}  // namespace tarvelo::test
