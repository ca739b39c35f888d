// SPDX-License-Identifier: Apache-2.0
// SONY sensors end to end through SendCmdFlk: a simulated rolling-shutter sensor under 120 Hz
// banding in the 50 Hz state reports 60 Hz; under steady light, or banding the exposure cancels,
// it never switches.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

#include "kestrel/flicker.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;

// A 1080-line readout: 2200 clocks a line at 74.25 MHz (29.6 us), 120 lines of blanking, so a
// frame lasts 35.56 ms = 4.27 periods of 120 Hz and the bands move from frame to frame. The
// 10 ms exposure cancels 100 Hz, not 120 Hz. Statistics: 4 bands of 270 rows, 4 columns.
constexpr double kLineTime = 2200 / 74.25e6;
constexpr double kExposure = 0.010;

// Results of `frames` DETECTs through the public entry, in the 50 Hz state, of a textured scene
// under light 1 + depth x sin(2 pi f t) integrated over each line's exposure, +-2 counts of noise.
std::vector<std::int32_t> Frames(std::uint32_t seed, double depth, double hz, std::int32_t frames) {
  FlkInitPara init{FLK_SENSOR_SONY, 2200, 1080, 300, 74.25e6, 0, 0};
  SendCmdFlk(CMD_INIT, &init, nullptr);
  EvTable state = EV_TABLE_50HZ;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> noise(-2.0, 2.0);
  const double w = 2.0 * std::numbers::pi * hz;
  std::vector<std::int32_t> results;
  std::vector<std::int32_t> grids[2];  // previous and current frame
  for (std::int32_t f = 0; f <= frames; ++f) {
    std::vector<std::int32_t>& grid = grids[f % 2];
    grid.resize(1080 * 4);
    for (std::int32_t i = 0; i < 1080 * 4; ++i) {
      const std::int32_t r = i / 4;
      const std::int32_t c = i % 4;
      const double t0 = (f * 1200 + r) * kLineTime;
      const double light =
          1.0 + depth * (std::sin(w * (t0 + kExposure)) - std::sin(w * t0)) / (w * kExposure);
      const double scene = 380.0 + 140.0 * std::sin(2.0 * std::numbers::pi * r / 173.0 + c) +
                           70.0 * std::sin(2.0 * std::numbers::pi * r / 41.0 + 2.0 * c);
      grid[i] = static_cast<std::int32_t>(std::clamp(scene * light + noise(rng), 0.0, 1023.0));
    }
    if (f == 0) continue;
    std::vector<std::int32_t> prev = grids[(f + 1) % 2];  // the pipeline rewrites both grids
    std::vector<std::int32_t> cur = grid;
    FlkDetectPara detect{FLK_SENSOR_SONY, prev.data(), cur.data(), 4, 4, 300, 270, 0, {}, {}, {},
                         nullptr};
    std::int32_t result = -1;
    SendCmdFlk(CMD_DETECT, &detect, &result);
    results.push_back(result);
  }
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  return results;
}

TEST_F(LibraryTest, SonyMovingBandingAt120HzSwitchesTo60) {
  for (const std::uint32_t seed : {1u, 2u, 3u}) {
    const std::vector<std::int32_t> results = Frames(seed, 0.2, 120.0, 10);
    const auto first = std::find(results.begin(), results.end(), FLK_RESULT_60HZ) - results.begin();
    EXPECT_GE(first, 2) << seed;  // the test needs three scored frames
    EXPECT_LT(first, 10) << seed;
    EXPECT_TRUE(std::all_of(results.begin(), results.begin() + first,
                            [](std::int32_t r) { return r == FLK_RESULT_50HZ; }));
  }
}

TEST_F(LibraryTest, SonySteadyLightOrCancelledBandingNeverSwitches) {
  for (const std::uint32_t seed : {1u, 2u, 3u}) {
    // Depth 0 at 120 Hz; 100 Hz under the 10 ms exposure integrates away.
    EXPECT_EQ(Frames(seed, 0.0, 120.0, 20), std::vector<std::int32_t>(20, FLK_RESULT_50HZ)) << seed;
    EXPECT_EQ(Frames(seed, 0.2, 100.0, 20), std::vector<std::int32_t>(20, FLK_RESULT_50HZ)) << seed;
  }
}

}  // namespace
