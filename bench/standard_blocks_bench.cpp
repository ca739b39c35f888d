// SPDX-License-Identifier: Apache-2.0
// Per-frame cost of the standard pipeline's blocks on 2000-sample signals: despike, frequency
// estimates and the shift search.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "standard/standard.h"

namespace {

constexpr std::int32_t kSamples = 2000;

// Scene-like content: jagged values around a 24-bit level, plus a ripple and one edge.
std::vector<std::int32_t> Signal(std::int32_t n, std::int32_t offset, std::int32_t shift) {
  std::vector<std::int32_t> v(n);
  for (std::int32_t i = 0; i < n; ++i) {
    const std::int32_t j = i + 100 - shift;
    v[i] = offset + 3000 * ((j * j * 7 + j * 13) % 97) + (i % 37) * 50 + (i > n / 2 ? 40000 : 0);
  }
  return v;
}

// Tables wide enough for 2000 statistics (8000 lines), built once (INIT prints its timing line).
void InitTables() {
  static const bool done = [] {
    flicker_init(4000, 8000, 512, 240e6);
    return true;
  }();
  (void)done;
}

void BM_Despike(benchmark::State& state) {
  std::vector<std::int32_t> in = Signal(kSamples, -1500000, 0);
  std::vector<std::int32_t> out(kSamples);
  for (auto _ : state) {
    flicker_despike(in.data(), out.data(), kSamples);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * kSamples);
}
BENCHMARK(BM_Despike);

void BM_ComputeFreq(benchmark::State& state) {
  InitTables();
  std::vector<std::int32_t> signal = Signal(kSamples, -1500000, 0);
  std::int32_t freq_out[9];
  for (auto _ : state) {
    flicker_compute_freq(signal.data(), kSamples, freq_out);
    benchmark::DoNotOptimize(freq_out);
  }
  state.SetItemsProcessed(state.iterations() * kSamples);
}
BENCHMARK(BM_ComputeFreq);

// Robust estimate over `segments` equal segments: 2^segments version choices.
void BM_ComputeFreqRobust(benchmark::State& state) {
  InitTables();
  const std::int32_t segments = static_cast<std::int32_t>(state.range(0));
  std::vector<std::int32_t> a = Signal(kSamples, -1500000, 0);
  std::vector<std::int32_t> b = Signal(kSamples, -1500000, 3);
  std::vector<std::int32_t> lengths(segments, kSamples / segments);
  std::int32_t freq_out[9];
  for (auto _ : state) {
    flicker_compute_freq_robust(a.data(), b.data(), segments, lengths.data(), freq_out);
    benchmark::DoNotOptimize(freq_out);
  }
  state.SetItemsProcessed(state.iterations() * kSamples);
}
BENCHMARK(BM_ComputeFreqRobust)->Arg(2)->Arg(4)->Arg(10);

// A 2000-statistic window: 1000 working samples, peaks, coarse and fine search.
void BM_ShiftSearch(benchmark::State& state) {
  InitTables();
  const std::int32_t len = kSamples / 2;
  std::vector<std::int32_t> prev = Signal(len, 8000000, 0);
  std::vector<std::int32_t> cur = Signal(len, 8000000, 9);
  std::vector<std::int32_t> grad_cur(len), grad_prev(len);
  for (std::int32_t i = 1; i + 1 < len; ++i) {
    grad_cur[i] = (cur[i + 1] - cur[i - 1]) >> 8;
    grad_prev[i] = (prev[i + 1] - prev[i - 1]) >> 8;
  }
  std::vector<std::int64_t> mask_cur(len), mask_prev(len);
  for (auto _ : state) {
    find_peaks(grad_cur.data(), len, 84, mask_cur.data());
    find_peaks(grad_prev.data(), len, 84, mask_prev.data());
    std::int32_t unreliable = 0;
    const std::int32_t coarse =
        exhaust_search(cur.data(), prev.data(), mask_cur.data(), mask_prev.data(), len, 32, 1, 2,
                       kSamples, unreliable);
    std::int32_t best = 0;
    exhaust_search_fine(cur.data(), prev.data(), mask_cur.data(), mask_prev.data(), len, 0, 1, 1, 2,
                        kSamples, unreliable ? 0 : coarse, best, cvector_out_test_ptr_array,
                        cvector_out_test_length_working_memory);
    benchmark::DoNotOptimize(best);
  }
  state.SetItemsProcessed(state.iterations() * kSamples);
}
BENCHMARK(BM_ShiftSearch);

}  // namespace
