// SPDX-License-Identifier: GPL-2.0-only
//
// The life of a router with its module, deed by deed, so that a test can let one thing go wrong in
// one of them and look at what the others make of it.
//
// What is sent is compared by its port and its last bytes: hop counts, the headers' checksums and
// the numbers of a tunnel may differ between the paths and after a loss. What the fast path does
// not take goes by the slow one, so nothing is missing but what was concerned.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "kernel/module_loader.h"
#include "stack/router.h"
#include "tarvelo/hook.h"
#include "tests/faults/conversation.h"
#include "tests/support/kernel_fixture.h"

namespace tarvelo::test {

/// How often each frame was sent: by port and last bytes.
using sent_frames = std::map<std::pair<std::string, bytes>, int>;

/// How many of `expected` are not among `sent`.
[[nodiscard]] int missing_from(const sent_frames& sent, const sent_frames& expected);
[[nodiscard]] int count_of(const sent_frames& frames);

/// Answers for the drivers of all ports: what ndo_start_xmit() returns for a frame.
using transmit_answer = std::function<int()>;

class life {
 public:
  explicit life(const conversation& talk);
  /// In order, whatever has been done; expects that nothing is left.
  ~life();
  life(const life&) = delete;
  life& operator=(const life&) = delete;

  /// Throws setup_error.
  void build();
  /// False, with the module gone again, when it does not load.
  bool load();
  void unload() { module_.reset(); }
  /// Makes the buffers of a pass, so that no allocation of the test's own is among those of
  /// traffic(), and lets what is left of an earlier pass run out.
  void prepare_traffic();
  /// The whole conversation. Around each frame two functions are called with its number.
  void traffic();
  std::function<void(std::size_t)> before_frame;
  std::function<void(std::size_t)> after_frame;
  /// What its sender does about a frame that was lost.
  void send_again(std::size_t frame) { receive(make_buffer(talk_.frames[frame])); }

  [[nodiscard]] sent_frames take_sent() { return std::exchange(sent_, {}); }
  [[nodiscard]] stack::router& router() { return *router_; }
  [[nodiscard]] const std::vector<net_device*>& ports() const { return ports_; }
  [[nodiscard]] std::vector<net_device*> devices() const;
  transmit_answer answer;

 private:
  static int transmit(sk_buff* skb, net_device* dev);
  [[nodiscard]] sk_buff* make_buffer(const arriving_frame& frame) const;
  void receive(sk_buff* skb);

  const conversation& talk_;
  fault::outstanding before_;
  std::unique_ptr<stack::router> router_;
  std::unique_ptr<loaded_module> module_;
  std::vector<net_device*> ports_;
  std::vector<sk_buff*> waiting_;
  sent_frames sent_;
};

/// What a conversation sends when nothing goes wrong.
[[nodiscard]] sent_frames undisturbed(const conversation& talk);

}  // namespace tarvelo::test
