// SPDX-License-Identifier: Apache-2.0
// One standard (type 0) detection per iteration at a common geometry: 6 bands of 250 rows,
// 4 columns, moving 120 Hz banding. Reports the time per frame and the heap allocations per frame
// (counted by a replaced global operator new).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <numbers>
#include <vector>

#include "allocation_counter.h"
#include "kestrel/flicker.h"
#include "standard/standard.h"

namespace {

constexpr int kBands = 6;
constexpr int kRows = 250;
constexpr int kColumns = 4;
constexpr std::int32_t kLineLength = 2000;
constexpr double kPclk = 96e6;

// Rolling-shutter frame k under 60 Hz light (depth 0.3, 10 ms exposure, 27 frames a second) over
// a scene with edges and shading.
std::vector<std::int64_t> Frame(int k) {
  std::vector<std::int64_t> grid(kBands * kRows * kColumns);
  const double w = 2 * std::numbers::pi * 120.0;
  const double exposure = 0.01;
  for (int r = 0; r < kBands * kRows; ++r) {
    const double t = k / 27.0 + r * kLineLength / kPclk;
    const double light =
        1 + 0.3 / (w * exposure) * (std::sin(w * t) - std::sin(w * (t - exposure)));
    for (int c = 0; c < kColumns; ++c) {
      const double content =
          (0.5 + 0.2 * c) * (1.0 + 0.3 * ((r / 37 + c) % 3)) + 0.05 * std::sin(r * 0.021 + c);
      grid[r * kColumns + c] = std::llround(2.5e6 * content * light) + (r * 7919 + k * 31) % 97;
    }
  }
  return grid;
}

void Discard(int, const char*, const char*) {}

struct Setup {
  Setup() {
    SetLogSinkFlk(&Discard);
    FlkInitPara init{FLK_SENSOR_STANDARD, kLineLength, kBands * kRows, 4000, kPclk, 0, 0};
    SendCmdFlk(CMD_INIT, &init, nullptr);
    std::int32_t state = 0;
    SendCmdFlk(CMD_SET_STATE, &state, nullptr);
    prev = Frame(0);
    cur = Frame(1);
  }
  ~Setup() {
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    SetLogSinkFlk(nullptr);
  }
  // The grids are unpacked in place to their low 24 bits, which these values already are, so
  // every iteration sees the same frames.
  std::vector<std::int64_t> prev;
  std::vector<std::int64_t> cur;
};

void ReportAllocations(benchmark::State& state, std::int64_t before) {
  kestrel_bench::ReportAllocations(state, before);
}

// Through the public entry, as a host calls it (command and geometry log lines included).
void BM_CmdDetect(benchmark::State& state) {
  Setup s;
  FlkDetectPara para{};
  para.type = FLK_SENSOR_STANDARD;
  para.prev_stats = s.prev.data();
  para.cur_stats = s.cur.data();
  para.n_win_h = kBands;
  para.n_win_w = kColumns;
  para.win_wd = 1000;
  para.win_ht = kRows;
  std::int32_t result = 0;
  const std::int64_t before = kestrel_bench::g_allocations.load();
  for (auto _ : state) {
    SendCmdFlk(CMD_DETECT, &para, &result);
    benchmark::DoNotOptimize(result);
  }
  ReportAllocations(state, before);
}
BENCHMARK(BM_CmdDetect);

// The pipeline alone, without the command layer's logging.
void BM_DetectFlickerSW(benchmark::State& state) {
  Setup s;
  const std::int64_t before = kestrel_bench::g_allocations.load();
  for (auto _ : state) {
    const std::int32_t result = detectFlicker_SW(s.prev.data(), s.cur.data(), kBands, kColumns,
                                                 1000, kRows, 0, {}, {}, {}, nullptr);
    benchmark::DoNotOptimize(result);
  }
  ReportAllocations(state, before);
}
BENCHMARK(BM_DetectFlickerSW);

}  // namespace
