/// What the benchmarks share: one CPU for everything, times, and the counters that the report reads.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <vector>

namespace event_service {

/// Keeps this process and what it starts on the first CPU that it may use. Across CPUs a round trip is five times as
/// long, and each process start as long as the scheduler makes it.
void StayOnOneCpu();

inline void Check(bool isFine, const char* what) {
  if (!isFine) throw std::runtime_error(what);
}

inline double SecondsOf(const std::function<void()>& job) {
  const auto start = std::chrono::steady_clock::now();
  job();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// What a job took in the turns of one benchmark: the least counts, since what else runs on the machine only ever adds.
class Times {
 public:
  void Add(double seconds) { least_ = std::min(least_, seconds); }
  double Least() const { return least_; }

 private:
  double least_ = 1e9;
};

/// The counters of one comparison, in microseconds divided by `parts`.
inline void ReportRatio(benchmark::State& state, double floorSeconds, double oursSeconds, double parts = 1) {
  state.counters["floor_us"] = floorSeconds * 1e6 / parts;
  state.counters["ours_us"] = oursSeconds * 1e6 / parts;
  state.counters["ratio"] = oursSeconds / floorSeconds;
}

/// The main function of a benchmark whose sandbox and servers stand.
inline void RunBenchmarks(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}

}  // namespace event_service
