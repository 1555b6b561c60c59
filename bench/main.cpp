// SPDX-License-Identifier: GPL-2.0-only
//
// tarvelo-bench: nanoseconds a packet for each subject, with the number of connections swept, the
// ratio of the fast to the slow path, and the memory figures.
//
//   tarvelo-bench [google-benchmark's options]
//   tarvelo-bench --bounds
//   tarvelo-bench --count SUBJECT CONNECTIONS PACKETS
//
// The second form prints what many connections cost. The third only feeds the packets, for a run
// under callgrind that collects inside measured_batch(); scripts/bench.sh does that.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>

#include "bench/bounds.h"
#include "bench/memory.h"
#include "bench/subject.h"
#include "kernel/jiffies.h"
#include "kernel/printk.h"

namespace {

using namespace tarvelo::bench;

void run_benchmark(benchmark::State& state, const subject_kind& kind, std::size_t count) {
  const auto connections = make_connections(count);
  const auto measured = kind.make(connections);
  feeder feed(*measured, connections);
  std::size_t packets = 0;
  for ([[maybe_unused]] auto _ : state) {
    feed.prepare();
    const auto start = std::chrono::steady_clock::now();
    feed.feed();
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    packets += feeder::batch_frames;
  }
  using benchmark::Counter;
  state.counters["per_packet"] =
      Counter(static_cast<double>(packets), Counter::kIsRate | Counter::kInvert);
}

std::string row_name(const subject_kind& kind, std::size_t count) {
  return kind.name + "/" + std::to_string(count);
}

/// Shows the rows and keeps the time of each.
class keeping_reporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration)
        times_[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }

  /// For each row that was measured by both paths.
  void print_ratios() const {
    constexpr std::string_view fast_mark = "_fast";
    for (const auto& [fast, fast_time] : times_) {
      const std::size_t at = fast.find(fast_mark);
      if (at == std::string::npos) continue;
      const std::string name = fast.substr(0, at);
      const auto slow = times_.find(name + "_slow" + fast.substr(at + fast_mark.size()));
      if (slow == times_.end()) continue;
      std::printf("%-16s the fast path takes 1/%.1f of the slow path's time\n", name.c_str(),
                  slow->second / fast_time);
    }
  }

 private:
  std::map<std::string, double> times_;
};

/// Loading and unloading say so each time; between the rows only what went wrong is of interest.
void print_errors_only(void*, klog::level at, const char* text) noexcept {
  if (at <= klog::level::warning) std::fputs(text, stderr);
}

int measure(int argc, char** argv) {
  for (const subject_kind& kind : subjects()) {
    for (const std::size_t count : kind.connections) {
      benchmark::RegisterBenchmark(row_name(kind, count).c_str(), [&kind,
                                                                   count](benchmark::State& state) {
        run_benchmark(state, kind, count);
      })->UseManualTime();
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
  keeping_reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.print_ratios();
  print_memory();
  return EXIT_SUCCESS;
}

int count_only(const std::string& name, std::size_t count, std::size_t packets) {
  for (const subject_kind& kind : subjects()) {
    if (kind.name != name) continue;
    const auto connections = make_connections(count);
    const auto measured = kind.make(connections);
    feeder feed(*measured, connections);
    for (std::size_t done = 0; done < packets; done += feeder::batch_frames) {
      feed.prepare();
      feed.feed();
    }
    return EXIT_SUCCESS;
  }
  wrong("no subject \"" + name + "\"");
}

}  // namespace

int main(int argc, char** argv) {
  kernel_clock::start_at(0);
  klog::set_sink(&print_errors_only, nullptr);
  if (argc == 5 && std::strcmp(argv[1], "--count") == 0) {
    return count_only(argv[2], std::stoul(argv[3]), std::stoul(argv[4]));
  }
  if (argc == 2 && std::strcmp(argv[1], "--bounds") == 0) {
    print_bounds();
    return EXIT_SUCCESS;
  }
  return measure(argc, argv);
}
