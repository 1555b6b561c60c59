// SPDX-License-Identifier: GPL-2.0-only
//
// A port on capture files: frames come in from one and go out to another. Time is not its own: the
// replay that owns it says when a frame has come in and stamps what goes out.
//
// One thread.
#pragma once

#include <optional>
#include <string>

#include "ports/capture_file.h"
#include "ports/port.h"

namespace tarvelo::ports {

/// Sees every frame on its way out and gives it its time stamp, in nanoseconds.
class transmit_observer {
 public:
  virtual s64 sent(const net_device* dev, const sk_buff* skb) noexcept = 0;

 protected:
  ~transmit_observer() = default;
};

class capture_port final : public port {
 public:
  /// `input` may be empty: nothing comes in.
  capture_port(const std::string& input, const std::string& output, link_layer link,
               transmit_observer& observer);

  /// The time stamp of the frame that receive() gives next; nothing at the end. A stamp that lies
  /// before the one that came before it in the file is taken as equal to that.
  [[nodiscard]] std::optional<s64> next_time() const noexcept { return next_time_; }

  /// Appends one frame. One that is too long for a buffer is lost and counted: the result is true
  /// and nothing is appended.
  [[nodiscard]] bool receive(std::vector<sk_buff*>& into) override;
  void transmit(sk_buff* skb) noexcept override;
  /// All that was sent is in the file; throws what went wrong on the way.
  void close();

 private:
  void read_ahead();

  link_layer link_;
  transmit_observer& observer_;
  std::optional<capture_reader> reader_;
  capture_writer writer_;
  std::optional<captured_frame> ahead_;
  std::optional<s64> next_time_;
};

}  // namespace tarvelo::ports
