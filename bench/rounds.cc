#include "rounds.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

/* Long enough for the clock. Short enough that the machine's speed rarely changes meanwhile. */
constexpr double kBatchSeconds = 50e-6;

std::vector<Comparison>& comparisons() {
  static std::vector<Comparison> all;
  return all;
}

double seconds(const Comparison& comparison, const Side& side, int64_t times) {
  comparison.before_batch();
  const auto start = Clock::now();
  side.run(times);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/* How often the side runs in a batch. */
int64_t batch_of(const Comparison& comparison, const Side& side) {
  int64_t times = 1;
  while (times < comparison.most_times && seconds(comparison, side, times) < kBatchSeconds) {
    times *= 2;
  }
  return std::min(times, comparison.most_times);
}

double quantile(std::vector<double> values, double share) {
  const auto at = values.begin() + static_cast<ptrdiff_t>(share * (values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

void measure(benchmark::State& state, const Comparison& comparison) {
  size_t sides = 0;
  std::vector<int64_t> batch;
  while (sides < std::size(comparison.sides) && comparison.sides[sides].run != nullptr) {
    batch.push_back(batch_of(comparison, comparison.sides[sides++]));
  }

  std::vector<std::vector<double>> times(sides), ratios(sides);
  for (size_t round = 0; state.KeepRunning(); ++round) {
    std::vector<double> each(sides);
    for (size_t n = 0; n < sides; ++n) {
      const size_t turn = (round + n) % sides;
      each[turn] = seconds(comparison, comparison.sides[turn], batch[turn]) / batch[turn];
    }
    for (size_t n = 0; n < sides; ++n) {
      times[n].push_back(each[n]);
      ratios[n].push_back(each[n] / each[0]);
    }
    state.SetIterationTime(each[0]);
  }
  for (size_t n = 0; n < sides; ++n) {
    const std::string name = comparison.sides[n].name;
    state.counters[name + "_ns"] = 1e9 * quantile(times[n], 0.5);
    if (n == 0) continue;
    state.counters[name + "_ratio"] = quantile(ratios[n], 0.5);
    state.counters[name + "_low"] = quantile(ratios[n], 0.25);
    state.counters[name + "_high"] = quantile(ratios[n], 0.75);
  }
}

const char* value_of(int argc, char** argv, const char* option) {
  const size_t size = strlen(option);
  for (int n = 1; n < argc; ++n) {
    if (strncmp(argv[n], option, size) == 0) return argv[n] + size;
  }
  return nullptr;
}

/* The counting tools search for this function by name. */
[[gnu::noinline]] void run_counted(const Side& side, int64_t times) { side.run(times); }

int run_only(const char* name, const char* side_name, const char* times) {
  must(side_name != nullptr && times != nullptr, "--only needs --side and --times");
  for (const Comparison& comparison : comparisons()) {
    if (strcmp(comparison.name, name) != 0) continue;
    for (const Side& side : comparison.sides) {
      if (side.name == nullptr || strcmp(side.name, side_name) != 0) continue;
      for (int64_t left = atoll(times); left > 0; left -= comparison.most_times) {
        comparison.before_batch();
        run_counted(side, std::min(left, comparison.most_times));
      }
      return 0;
    }
  }
  must(false, "there is no such comparison or side");
  return 1;
}

}  // namespace

void add(Comparison comparison) { comparisons().push_back(comparison); }

int run_comparisons(int argc, char** argv) {
  if (const char* name = value_of(argc, argv, "--only=")) {
    return run_only(name, value_of(argc, argv, "--side="), value_of(argc, argv, "--times="));
  }
  for (const Comparison& comparison : comparisons()) {
    benchmark::RegisterBenchmark(comparison.name, measure, comparison)
        ->UseManualTime()
        ->Iterations(comparison.rounds);
  }
  benchmark::Initialize(&argc, argv);
  must(!benchmark::ReportUnrecognizedArguments(argc, argv), "unknown arguments");
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace bench
