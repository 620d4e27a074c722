#pragma once

// How the row benchmarks are named and run.

#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace bench {

/// One contestant of a workload. `make` gives the operation to measure, with all that it works on.
template <typename Make>
void add(const std::string& name, Make make) {
  benchmark::RegisterBenchmark(name.c_str(), [make](benchmark::State& state) {
    auto work = make();
    for (auto _ : state) work();
    state.SetItemsProcessed(state.iterations());
  });
}

/// The time that this thread has been at work, whatever else the machine did.
inline double threadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Contestants that do not give the same values are not worth measuring.
inline void require(bool same, const char* what) {
  if (same) return;
  std::fprintf(stderr, "contestants differ: %s\n", what);
  std::exit(1);
}

/// Counts round through `size` numbers, a power of two.
template <std::size_t size>
class Round {
 public:
  std::size_t next() { return at_++ % size; }

 private:
  static_assert((size & (size - 1)) == 0);
  std::size_t at_ = 0;
};

}  // namespace bench
