// SPDX-License-Identifier: GPL-2.0-only
#include "bench/subject.h"

#include <cstdio>
#include <cstdlib>

#include "kernel/context.h"

namespace tarvelo::bench {

const std::vector<subject_kind>& subjects() {
  static const std::vector<subject_kind> all{
      {"forward", {1, 1000, 10000, 100000}, make_forward},
      {"router_fast", {1000}, make_router_fast},
      {"router_slow", {1000}, make_router_slow},
      {"naive", {1, 1000, 10000, 100000}, make_naive},
  };
  return all;
}

void wrong(const std::string& what) {
  std::fprintf(stderr, "tarvelo-bench: %s\n", what.c_str());
  std::exit(EXIT_FAILURE);
}

[[gnu::noinline]] void measured_batch(subject& s, std::span<sk_buff* const> batch) {
  s.run(batch);
}

feeder::feeder(subject& s, const std::vector<connection>& connections)
    : subject_(s), frames_(connections), batch_(batch_frames) {}

void feeder::prepare() {
  for (sk_buff*& skb : batch_)
    skb = received(frames_.next(), subject_.input());
}

void feeder::feed() {
  const hosted::softirq_scope softirq;
  measured_batch(subject_, batch_);
}

}  // namespace tarvelo::bench
