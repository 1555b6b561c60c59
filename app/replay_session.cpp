// SPDX-License-Identifier: GPL-2.0-only
#include "app/replay_session.h"

#include <fmt/format.h>

#include <algorithm>

#include "kernel/context.h"
#include "kernel/jiffies.h"

namespace tarvelo::app {

namespace {

constexpr s64 nanoseconds_per_second = 1'000'000'000;
/// Instants that are further apart than 2^31 jiffies cannot be told from the past.
constexpr s64 longest_step = s64{1} << 30;

}  // namespace

std::optional<ports::link_layer> link_of(const stack::device_config& device) {
  if (std::holds_alternative<stack::port_link>(device.link)) return ports::link_layer::ethernet;
  if (std::holds_alternative<stack::rawip_link>(device.link)) return ports::link_layer::raw_ip;
  return std::nullopt;
}

std::string result_name(const stack::device_config& port) {
  return port.name + ".pcap";
}

std::string seconds_text(s64 nanoseconds) {
  std::string text = fmt::format("{}.{:09}", nanoseconds / nanoseconds_per_second,
                                 nanoseconds % nanoseconds_per_second);
  while (text.back() == '0' && text[text.size() - 2] != '.')
    text.pop_back();
  return text;
}

replay_session::replay_session(const app_config& config, const std::vector<replay_input>& inputs,
                               output_directory& out)
    : out_(out) {
  hosted::set_processor(0);
  kernel_clock::start_at(0);
  for (const stack::device_config& device : config.router.devices)
    make_port(device, inputs, out);
  host_ = std::make_unique<router_host>(config);

  auto port = ports_.begin();
  inputs_.resize(inputs.size());
  for (const stack::device_config& device : config.router.devices) {
    if (!link_of(device)) continue;
    (*port)->attach(host_->router().device(device.name));
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      if (inputs[i].device == device.name) inputs_[i] = port->get();
    }
    ++port;
  }
}

replay_session::~replay_session() = default;

void replay_session::make_port(const stack::device_config& device,
                               const std::vector<replay_input>& inputs, output_directory& out) {
  const auto link = link_of(device);
  if (!link) return;
  const auto input = std::find_if(inputs.begin(), inputs.end(),
                                  [&](const replay_input& i) { return i.device == device.name; });
  ports::transmit_observer& observer = *this;
  ports_.push_back(
      std::make_unique<ports::capture_port>(input == inputs.end() ? std::string() : input->capture,
                                            out.staged(result_name(device)), *link, observer));
}

ports::capture_port* replay_session::next_port() const {
  ports::capture_port* next = nullptr;
  for (ports::capture_port* port : inputs_) {
    if (!port->next_time()) continue;
    if (next == nullptr || *port->next_time() < *next->next_time()) next = port;
  }
  return next;
}

void replay_session::advance_clock(s64 to) {
  const s64 target = to / nanoseconds_per_jiffy;
  for (s64 at = now_ / nanoseconds_per_jiffy; at < target;) {
    at = std::min(target, at + longest_step);
    kernel_clock::advance_to(static_cast<u32>(at));
  }
  now_ = to;
}

void replay_session::feed() {
  const ports::capture_port* first = next_port();
  if (first == nullptr) return;
  const s64 beginning = *first->next_time();
  while (ports::capture_port* port = next_port()) {
    advance_clock(*port->next_time() - beginning);
    feed_one(*port);
  }
}

void replay_session::feed_one(ports::capture_port& port) {
  std::vector<sk_buff*> frames;
  outcome_ = {};
  ++frames_;
  // A frame too long for any buffer never reaches the router.
  auto verdict = stack::receive_verdict::dropped;
  {
    const hosted::softirq_scope softirq;
    feeding_ = true;
    (void)port.receive(frames);
    for (sk_buff* skb : frames)
      verdict = host_->router().receive(skb);
    feeding_ = false;
  }
  switch (verdict) {
    case stack::receive_verdict::slow:
      record(port, "slow");
      break;
    case stack::receive_verdict::fast:
      if (!outcome_.out.empty()) {
        record(port, outcome_.bridged ? "fast-bridged" : "fast-routed");
        break;
      }
      [[fallthrough]];  // the module took it and sent nothing
    case stack::receive_verdict::dropped:
      record(port, "dropped");
      break;
  }
}

void replay_session::record(const ports::capture_port& port, const char* verdict) {
  std::string out;
  for (const net_device* dev : outcome_.out) {
    out += fmt::format("{}\"{}\"", out.empty() ? "" : ", ", dev->name);
  }
  log_ += fmt::format(
      "{{\"n\": {}, \"in\": \"{}\", \"time\": {}, \"verdict\": \"{}\", \"out\": [{}]}}\n", frames_,
      port.device()->name, seconds_text(now_), verdict, out);
}

s64 replay_session::sent(const net_device* dev, const sk_buff* skb) noexcept {
  const s64 now = feeding_ ? now_ : s64{jiffies} * nanoseconds_per_jiffy;
  last_sent_ = std::max(last_sent_, now);
  if (feeding_) {
    auto& out = outcome_.out;
    if (std::find(out.begin(), out.end(), dev) == out.end()) out.push_back(dev);
    // What a tunnel over PPPoE sends has lost its marks: the session's device began it anew.
    const bool marked = (skb->fast_flags & fast_flag::sent_fast) != 0;
    outcome_.bridged = marked && skb->nfct == nullptr;
  }
  return last_sent_;
}

void replay_session::finish() {
  host_.reset();
  for (const auto& port : ports_)
    port->close();
  out_.write("frames.jsonl", log_);
}

}  // namespace tarvelo::app
