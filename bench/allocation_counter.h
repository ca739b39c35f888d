// SPDX-License-Identifier: Apache-2.0
// Counts heap allocations made anywhere in the process (the library included) by replacing the
// global operator new. Include it in exactly one source of a benchmark program.
#ifndef KESTREL_BENCH_ALLOCATION_COUNTER_H
#define KESTREL_BENCH_ALLOCATION_COUNTER_H

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace kestrel_bench {

inline std::atomic<std::int64_t> g_allocations{0};

// Reports the allocations since `before` as "allocs_per_frame", averaged over the iterations.
inline void ReportAllocations(benchmark::State& state, std::int64_t before) {
  state.counters["allocs_per_frame"] = benchmark::Counter(
      static_cast<double>(g_allocations.load() - before), benchmark::Counter::kAvgIterations);
}

}  // namespace kestrel_bench

void* operator new(std::size_t size) {
  kestrel_bench::g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

#endif  // KESTREL_BENCH_ALLOCATION_COUNTER_H
