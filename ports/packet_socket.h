// SPDX-License-Identifier: GPL-2.0-only
//
// A port on an interface of the host, by a packet socket.
//
// Two things make the kernel's frames differ from the wire's, and both are put right before the
// router sees them: a local sender on the other end of a virtual link leaves checksums to a card
// that is not there and hands over super-frames (see ports/offload.h), and a tag comes beside the
// frame instead of in it.
//
// Frames are received straight into fresh buffers, with an overflow area behind each for the rare
// super-frame. It needs CAP_NET_RAW in the interface's network namespace and nothing else.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "kernel/context.h"
#include "ports/host_interface.h"
#include "ports/offload.h"
#include "ports/owned_fd.h"
#include "ports/port.h"
#include "ports/transmit_queue.h"

namespace tarvelo::ports {

class packet_socket final : public port {
 public:
  /// Binds to an interface of the host, which must be of the given link layer and have at least
  /// the MTU. Throws port_error.
  packet_socket(const std::string& interface, link_layer link, u32 mtu);
  ~packet_socket() override;

  [[nodiscard]] bool receive(std::vector<sk_buff*>& into) override;
  void transmit(sk_buff* skb) noexcept override;
  void flush() noexcept override;
  [[nodiscard]] int poll_fd() const noexcept override { return socket_.get(); }

  [[nodiscard]] const std::string& interface() const noexcept { return interface_; }

 private:
  struct receive_slots;
  struct arrival;

  void set_up_socket(int index);
  [[nodiscard]] u32 refill() noexcept;
  void take(arrival& in, std::vector<sk_buff*>& into) noexcept;
  void finish(sk_buff* skb, const offload_header& offload, std::vector<sk_buff*>& into) noexcept;
  void cut(std::span<const u8> frame, const offload_header& offload,
           std::vector<sk_buff*>& into) noexcept;
  void lose(u32 frames = 1) noexcept;

  std::string interface_;
  link_layer link_;
  u32 host_mtu_;
  owned_fd socket_;
  std::unique_ptr<receive_slots> slots_;
  std::array<transmit_queue, hosted::max_processors> transmit_;  ///< one for each processor
};

}  // namespace tarvelo::ports
