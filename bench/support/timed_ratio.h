// Times only the operation under test (inputs are prepared untimed for every
// iteration), remembers each variant's best iteration, and prints the ratios
// between variants after the run, so one run reports library against peers.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kxbench {

/// Best (shortest) iteration time per variant name, in seconds.
inline std::map<std::string, double>& bestTimes() {
  static std::map<std::string, double> times;
  return times;
}

/// What an iteration is timed by: the wall clock, or the processor time of
/// the whole process (every thread's), which a busy machine disturbs far
/// less when the work runs on one thread.
enum class Clock { Wall, ProcessCpu };

/// The current reading of `clock`, in seconds.
inline double readClock(Clock clock) {
  if (clock == Clock::ProcessCpu) {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Runs the benchmark loop: `prepare()` builds a fresh input outside the
/// timed region, `work(input)` is timed by `clock` and reported as the
/// iteration time (register the benchmark with UseManualTime()).
template <class Prepare, class Work>
void timeIterations(benchmark::State& state, const std::string& variant, Prepare prepare, Work work,
                    Clock clock = Clock::Wall) {
  for (auto _ : state) {
    auto input = prepare();
    const double start = readClock(clock);
    work(input);
    const double seconds = readClock(clock) - start;
    state.SetIterationTime(seconds);
    auto found = bestTimes().find(variant);
    if (found == bestTimes().end() || seconds < found->second) bestTimes()[variant] = seconds;
  }
}

/// Runs the registered benchmarks, then prints "slower / faster" for each
/// pair whose two variants both ran (peer variants exist only with peers).
inline int runAndPrintRatios(int argc, char** argv,
                             const std::vector<std::pair<std::string, std::string>>& pairs) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (const auto& pair : pairs) {
    const auto slow = bestTimes().find(pair.first), fast = bestTimes().find(pair.second);
    if (slow == bestTimes().end() || fast == bestTimes().end()) continue;
    std::printf("ratio %s / %s = %.2f (best iterations %.3g s / %.3g s)\n", pair.first.c_str(),
                pair.second.c_str(), slow->second / fast->second, slow->second, fast->second);
  }
  return 0;
}

}  // namespace kxbench
