// Timing harness of the benchmark programs: the library's path and its floor
// run in the same process, alternating, and each side's median is printed
// with the ratio library / floor. Figures only: nothing here asserts a target.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace ambrel::bench {

inline double NowMicroseconds() {
  static const double ticksPerMicrosecond = [] {
    LARGE_INTEGER frequency{};
    ::QueryPerformanceFrequency(&frequency);
    return static_cast<double>(frequency.QuadPart) / 1e6;
  }();
  LARGE_INTEGER now{};
  ::QueryPerformanceCounter(&now);
  return static_cast<double>(now.QuadPart) / ticksPerMicrosecond;
}

inline double Median(std::vector<double> samples) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const size_t middle = samples.size() / 2;
  return samples.size() % 2 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

struct Comparison {
  double library = 0;  // median microseconds per operation
  double floor = 0;
  int rounds = 0;
  int batch = 0;
  double ratio() const { return floor > 0 ? library / floor : 0; }
};

// `rounds` samples of each side; a sample times `batch` operations in a row
// and counts their mean. The side that goes first changes every round, so a
// slow spell of the machine falls on both sides alike.
template <typename Library, typename Floor>
Comparison Compare(int rounds, int batch, Library&& library, Floor&& floor) {
  std::vector<double> librarySamples, floorSamples;
  librarySamples.reserve(rounds);
  floorSamples.reserve(rounds);
  auto time = [batch](auto& operation) {
    const double start = NowMicroseconds();
    for (int i = 0; i < batch; ++i) operation();
    return (NowMicroseconds() - start) / batch;
  };
  for (int round = 0; round < rounds; ++round) {
    if (round % 2 == 0) {
      librarySamples.push_back(time(library));
      floorSamples.push_back(time(floor));
    } else {
      floorSamples.push_back(time(floor));
      librarySamples.push_back(time(library));
    }
  }
  return {Median(librarySamples), Median(floorSamples), rounds, batch};
}

// A `target` of 0 marks a figure that is only for reading.
inline void Print(const char* name, const Comparison& c, double target) {
  char goal[32] = "figure only";
  if (target > 0) std::snprintf(goal, sizeof goal, "target <= %.2f", target);
  std::printf("%-34s library %10.1f us   floor %10.1f us   ratio %.3f   (%s, %d rounds x %d)\n", name, c.library,
              c.floor, c.ratio(), goal, c.rounds, c.batch);
  std::fflush(stdout);
}

// "--rounds N" on the command line, else `fallback`.
inline int RoundsArgument(int argc, char** argv, int fallback) {
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "--rounds") == 0) return std::max(1, std::atoi(argv[i + 1]));
  return fallback;
}

// Stops the program with a message when a set-up step did not give what the
// measurement depends on, so no figure is printed for a path that failed.
inline void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "benchmark set-up failed: %s\n", what);
  std::exit(2);
}

}  // namespace ambrel::bench
