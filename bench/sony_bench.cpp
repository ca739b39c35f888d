// SPDX-License-Identifier: Apache-2.0
// One type-1 DETECT per iteration: a 1080-line SONY readout with moving 120 Hz banding.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "allocation_counter.h"
#include "decision/decision.h"
#include "interface/interface.h"
#include "kestrel/flicker.h"
#include "sony/sony.h"
#include "standard/standard.h"

namespace {

constexpr std::int32_t kLineLength = 2200;  // 29.6 us a line at 74.25 MHz
constexpr double kPclk = 74.25e6;
constexpr std::int32_t kFrameLines = 1200;
constexpr std::int32_t kWindowWidth = 300;

void DiscardLog(int, const char*, const char*) {}

// 10-bit window means of frame `frame`: a textured scene under 20 % 120 Hz modulation
// integrated over a 10 ms exposure, with a little deterministic grain.
std::vector<std::int32_t> Frame(std::int32_t frame, std::int32_t rows, std::int32_t cols) {
  const double line_time = kLineLength / kPclk;
  const double w = 2.0 * std::numbers::pi * 120.0;
  const double exposure = 0.010;
  std::vector<std::int32_t> grid(static_cast<std::size_t>(rows) * cols);
  std::uint32_t grain = 12345u + static_cast<std::uint32_t>(frame);
  for (std::int32_t r = 0; r < rows; ++r) {
    const double t0 = (static_cast<double>(frame) * kFrameLines + r) * line_time;
    const double light =
        1.0 + 0.2 * (std::sin(w * (t0 + exposure)) - std::sin(w * t0)) / (w * exposure);
    for (std::int32_t c = 0; c < cols; ++c) {
      grain = grain * 1664525u + 1013904223u;
      const double scene = 380.0 + 140.0 * std::sin(2.0 * std::numbers::pi * r / 173.0 + c) +
                           static_cast<double>(grain >> 29);
      grid[static_cast<std::size_t>(r) * cols + c] = static_cast<std::int32_t>(scene * light);
    }
  }
  return grid;
}

// Arguments: windows (n_win_h), rows per window (win_ht), columns (n_win_w).
void BM_SonyDetect(benchmark::State& state) {
  const auto bands = static_cast<std::int32_t>(state.range(0));
  const auto band_rows = static_cast<std::int32_t>(state.range(1));
  const auto cols = static_cast<std::int32_t>(state.range(2));
  const std::int32_t rows = bands * band_rows;
  SetLogSinkFlk(&DiscardLog);
  flicker_init_SONY(kLineLength, rows, kWindowWidth, kPclk);
  set_flicker_state(EV_TABLE_50HZ);
  const std::vector<std::int32_t> prev = Frame(0, rows, cols);
  const std::vector<std::int32_t> cur = Frame(1, rows, cols);
  std::vector<std::int32_t> prev_work(prev.size());
  std::vector<std::int32_t> cur_work(cur.size());
  const std::int64_t before = kestrel_bench::g_allocations.load();  // the copies reuse capacity
  for (auto _ : state) {
    // The pipeline rewrites the grids in place: fresh copies every frame, outside the timing.
    state.PauseTiming();
    prev_work = prev;
    cur_work = cur;
    reset_flicker_queue();
    state.ResumeTiming();
    benchmark::DoNotOptimize(detectFlicker_SW_SONY(prev_work.data(), cur_work.data(), bands, cols,
                                                   kWindowWidth, band_rows, 0, FlkSensorInfo{},
                                                   FlkEISVector{}, FlkAEInfo{}, nullptr));
  }
  kestrel_bench::ReportAllocations(state, before);
  flicker_uninit();
  SetLogSinkFlk(nullptr);
}

// 1080 lines in 4 windows of 4 columns (81 candidate choices) is the typical readout; 3 windows
// fit the fixed scratch; 10 windows of 200 rows is the largest geometry accepted (59049 choices).
BENCHMARK(BM_SonyDetect)
    ->Args({4, 270, 4})
    ->Args({3, 360, 4})
    ->Args({10, 200, 4})
    ->Unit(benchmark::kMicrosecond);

// The quarter-sample shifts of one window's search: all 17 shifts of a 270-row log vector, with
// the SONY denominator 4 and the 2x5 pipeline's 8.
void BM_SonyShift(benchmark::State& state) {
  const auto den = static_cast<std::int32_t>(state.range(0));
  constexpr std::int32_t kRows = 270;
  std::vector<std::int32_t> in(kRows);
  std::vector<std::int32_t> out(kRows);
  for (std::int32_t i = 0; i < kRows; ++i) {
    in[i] = 40000 + static_cast<std::int32_t>(9000.0 * std::sin(i / 7.0)) - (i % 3) * 50000;
  }
  for (auto _ : state) {
    for (std::int32_t s = -2 * den; s <= 2 * den; ++s) {
      subpixel_shift_vec_SONY(in.data(), out.data(), kRows, s, den);
      benchmark::DoNotOptimize(out.data());
    }
  }
}
BENCHMARK(BM_SonyShift)->Arg(4)->Arg(8)->Unit(benchmark::kMicrosecond);

}  // namespace
