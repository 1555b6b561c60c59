// SPDX-License-Identifier: GPL-2.0-only
#include "bench/subject.h"

#include <cstdio>
#include <cstdlib>

#include "kernel/context.h"

namespace tarvelo::bench {

namespace {

constexpr std::size_t lane_connections = 1000;

std::vector<subject_kind> all_subjects() {
  std::vector<subject_kind> all{
      {"forward", {1, 1000, 10000, 100000}, make_forward},
      {"router_fast", {1000}, make_router_fast},
      {"router_slow", {1000}, make_router_slow},
      {"naive", {1, 1000, 10000, 100000}, make_naive},
  };
  for (const lane& l : lanes()) {
    for (const direction way : {direction::outwards, direction::inwards}) {
      const std::string name = l.name + (way == direction::outwards ? "_out" : "_in");
      for (const bool fast : {true, false}) {
        all.push_back({name + (fast ? "_fast" : "_slow"),
                       {lane_connections},
                       [&l, way, fast](const std::vector<connection>& connections) {
                         return make_lane(l, way, fast, connections);
                       }});
      }
    }
  }
  return all;
}

}  // namespace

const std::vector<subject_kind>& subjects() {
  static const std::vector<subject_kind> all = all_subjects();
  return all;
}

std::vector<frame_group> subject::traffic(const std::vector<connection>& connections) const {
  std::vector<frame_group> groups;
  groups.reserve(connections.size());
  for (const connection& c : connections)
    groups.push_back({data_frame(c)});
  return groups;
}

void wrong(const std::string& what) {
  std::fprintf(stderr, "tarvelo-bench: %s\n", what.c_str());
  std::exit(EXIT_FAILURE);
}

[[gnu::noinline]] void measured_batch(subject& s, std::span<sk_buff* const> batch) {
  s.run(batch);
}

feeder::feeder(subject& s, const std::vector<connection>& connections)
    : subject_(s), frames_(s.traffic(connections)), batch_(batch_frames) {}

void feeder::prepare() {
  for (sk_buff*& skb : batch_)
    skb = received(frames_.next(), subject_.input());
}

void feeder::feed() {
  const hosted::softirq_scope softirq;
  measured_batch(subject_, batch_);
}

}  // namespace tarvelo::bench
