// SPDX-License-Identifier: GPL-2.0-only
//
// What is measured: a way for a received frame to go until its buffer has been freed. Each subject
// is set up with a number of connections and then fed batches of buffers.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/lanes.h"
#include "bench/traffic.h"

namespace tarvelo::bench {

class subject {
 public:
  subject() = default;
  virtual ~subject() = default;
  subject(const subject&) = delete;
  subject& operator=(const subject&) = delete;

  /// What it is to be fed with.
  [[nodiscard]] virtual std::vector<frame_group> traffic(
      const std::vector<connection>& connections) const;
  /// The device that frames come in on.
  [[nodiscard]] virtual net_device* input() const = 0;
  /// Takes all buffers, in softirq context. Ends the program when a frame went another way than the
  /// subject is there to measure.
  virtual void run(std::span<sk_buff* const> batch) = 0;
};

struct subject_kind {
  std::string name;
  std::vector<std::size_t> connections;  ///< the sweep
  std::function<std::unique_ptr<subject>(const std::vector<connection>&)> make;
};

/// The module's forward operation, called directly, sending to a device that frees the buffer.
[[nodiscard]] std::unique_ptr<subject> make_forward(const std::vector<connection>& connections);
/// The whole router, frames handed to its receive function, with the fast path on.
[[nodiscard]] std::unique_ptr<subject> make_router_fast(const std::vector<connection>& connections);
/// The same with the fast path off.
[[nodiscard]] std::unique_ptr<subject> make_router_slow(const std::vector<connection>& connections);
/// The whole router with what the lane stands on, whole or cut datagrams over UDP connections.
[[nodiscard]] std::unique_ptr<subject> make_lane(const lane& l, direction way, bool fast,
                                                 const std::vector<connection>& connections);
/// A hash table of the standard library and full checksums: what one would write in an afternoon.
[[nodiscard]] std::unique_ptr<subject> make_naive(const std::vector<connection>& connections);

/// All of them.
[[nodiscard]] const std::vector<subject_kind>& subjects();

/// Ends the program with a message: a benchmark that measures something else must not print.
[[noreturn]] void wrong(const std::string& what);

/// Feeds one batch; the one function that is measured.
void measured_batch(subject& s, std::span<sk_buff* const> batch);

/// Batches of `batch_frames` buffers of the traffic.
class feeder {
 public:
  static constexpr std::size_t batch_frames = 256;

  feeder(subject& s, const std::vector<connection>& connections);
  /// Fills a batch; not measured.
  void prepare();
  /// Feeds it to the subject.
  void feed();

 private:
  subject& subject_;
  shuffled_frames frames_;
  std::vector<sk_buff*> batch_;
};

}  // namespace tarvelo::bench
