// SPDX-License-Identifier: GPL-2.0-only
//
// One replay: the router and the module on capture ports, on a virtual clock, in one thread.
//
// Frames are fed in the order of their time stamps, ties in the order of the options; the clock
// never goes back, so a frame stamped before an earlier one of its capture comes in right after it.
// Timers that are due between two frames run at their own time, and what they send is stamped so.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/config.h"
#include "app/output_directory.h"
#include "app/router_host.h"
#include "ports/capture_port.h"

namespace tarvelo::app {

inline constexpr s64 nanoseconds_per_jiffy = 1'000'000;

/// How frames of a device look in a capture; nothing for devices that are not ports.
[[nodiscard]] std::optional<ports::link_layer> link_of(const stack::device_config& device);

/// The name of the capture of what a port sends.
[[nodiscard]] std::string result_name(const stack::device_config& port);

struct replay_input {
  std::string device;
  std::string capture;
  ports::link_layer link;
};

class replay_session final : private ports::transmit_observer {
 public:
  /// The outputs are written below `out`, which the caller commits after finish().
  replay_session(const app_config& config, const std::vector<replay_input>& inputs,
                 output_directory& out);
  ~replay_session();

  void load_module(const std::string& path) { host_->load_module(open_module(path)); }
  /// Feeds all frames.
  void feed();
  [[nodiscard]] const stack::router& router() const { return host_->router(); }
  /// Takes the router down and completes the outputs.
  void finish();

 private:
  /// What was sent on account of the frame being fed.
  struct outcome {
    std::vector<const net_device*> out;  ///< in order, each once
    bool bridged = false;                ///< the last of it, by the fast path and for no connection
  };

  void make_port(const stack::device_config& device, const std::vector<replay_input>& inputs,
                 output_directory& out);
  [[nodiscard]] ports::capture_port* next_port() const;
  void advance_clock(s64 to);
  void feed_one(ports::capture_port& port);
  void record(const ports::capture_port& port, const char* verdict);
  s64 sent(const net_device* dev, const sk_buff* skb) noexcept override;

  std::vector<std::unique_ptr<ports::capture_port>> ports_;
  std::vector<ports::capture_port*> inputs_;  ///< in the order of the options
  std::unique_ptr<router_host> host_;         ///< goes before the ports it sends on
  std::string log_;                           ///< lines of frames.jsonl
  output_directory& out_;
  s64 now_ = 0;        ///< nanoseconds since the first frame
  s64 last_sent_ = 0;  ///< stamps do not go back either
  bool feeding_ = false;
  outcome outcome_;
  u64 frames_ = 0;
};

/// Seconds as a decimal number with all the digits it needs, at least one after the point.
[[nodiscard]] std::string seconds_text(s64 nanoseconds);

}  // namespace tarvelo::app
