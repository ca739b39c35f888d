// SPDX-License-Identifier: Apache-2.0
// Cost of one type-2 DETECT: 540 statistics rows in 3 bands of 5 columns (and 1000 rows in ten
// bands, the most: 59049 candidate choices), textured scene with moving 120 Hz banding, from
// SendCmdFlk to the result code.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "allocation_counter.h"
#include "decision/decision.h"
#include "kestrel/flicker.h"
#include "twobyfive/twobyfive.h"

namespace {

constexpr std::int32_t kColumns = 5;
constexpr std::int32_t kBlock = 4;
constexpr std::int32_t kWidth = 100;
constexpr std::int32_t kLineLength = 1389;
constexpr double kPclk = 100e6;

void Discard(int, const char*, const char*) {}

// Block sums of a shaded, edged scene under 1 + 0.3 cos(2 pi 120 t), 10 ms exposures, a frame
// every 2250 lines; a fixed pseudo-random wobble stands in for noise.
std::vector<std::int32_t> Frame(std::int32_t index, std::int32_t rows) {
  const double line_time = kLineLength / kPclk;
  const double w = 2 * M_PI * 120.0;
  const double exposure = 0.010;
  std::uint32_t seed = 12345u + static_cast<std::uint32_t>(index) * 7919u;
  std::vector<std::int32_t> grid(rows * kColumns);
  for (std::int32_t r = 0; r < rows; ++r) {
    for (std::int32_t c = 0; c < kColumns; ++c) {
      double sum = 0;
      for (std::int32_t b = 0; b < kBlock; ++b) {
        const std::int32_t l = r * kBlock + b;
        const double end = (index * 2250.0 + l) * line_time;
        const double light =
            1 + 0.3 * (std::sin(w * end) - std::sin(w * (end - exposure))) / (w * exposure);
        const double reflectance =
            1400 + 500 * std::sin(2 * M_PI * l / 700.0 + c) + 250 * ((l / 173 + c) % 2);
        sum += reflectance * light * kWidth;
      }
      seed = seed * 1664525u + 1013904223u;
      sum *= 1 + 0.004 * ((seed >> 8) / 16777216.0 - 0.5);
      grid[r * kColumns + c] = static_cast<std::int32_t>(std::lround(sum));
    }
  }
  return grid;
}

// Arguments: 1 through SendCmdFlk, as a host calls it, or 0 the driver alone, without the command
// layer's always-printed lines; then the bands and the frame's rows.
void BM_Detect2x5(benchmark::State& state) {
  const bool through_command = state.range(0) != 0;
  const auto bands = static_cast<std::int32_t>(state.range(1));
  const auto rows = static_cast<std::int32_t>(state.range(2));
  SetLogSinkFlk(&Discard);
  FlkInitPara init{FLK_SENSOR_2X5, kLineLength, rows * kBlock, kWidth, kPclk, kBlock, 0};
  SendCmdFlk(CMD_INIT, &init, nullptr);
  EvTable state50 = EV_TABLE_50HZ;
  SendCmdFlk(CMD_SET_STATE, &state50, nullptr);
  std::vector<std::int32_t> frames[2] = {Frame(0, rows), Frame(1, rows)};
  FlkDetectPara detect{};
  detect.type = FLK_SENSOR_2X5;
  detect.n_win_h = bands;
  detect.n_win_w = kColumns;
  detect.win_wd = kWidth;
  detect.win_ht = rows;
  std::int32_t result = 0;
  std::int64_t count = 0;
  const std::int64_t allocations_before = kestrel_bench::g_allocations.load();
  for (auto _ : state) {
    // Alternate the pair's order so the banding moves both ways.
    std::int32_t* prev = frames[count & 1].data();
    std::int32_t* cur = frames[(count + 1) & 1].data();
    if (through_command) {
      detect.prev_stats = prev;
      detect.cur_stats = cur;
      SendCmdFlk(CMD_DETECT, &detect, &result);
    } else {
      result =
          detectFlicker_SW_2x5(prev, cur, bands, kColumns, kWidth, rows, 0, {}, {}, {}, nullptr);
    }
    reset_flicker_queue();
    benchmark::DoNotOptimize(result);
    ++count;
  }
  kestrel_bench::ReportAllocations(state, allocations_before);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  SetLogSinkFlk(nullptr);
  state.SetLabel(std::to_string(rows) + " rows, " + std::to_string(bands) + " bands, 5 columns");
}
BENCHMARK(BM_Detect2x5)
    ->Args({1, 3, 540})
    ->Args({0, 3, 540})
    ->Args({1, 10, 1000})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
