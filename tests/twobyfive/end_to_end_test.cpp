// SPDX-License-Identifier: Apache-2.0
// The 2x5 pipeline through SendCmdFlk: banded statistics of a shaded, noisy scene, frame after
// frame, against the sequential test's decision.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "kestrel/flicker.h"
#include "support.h"

namespace {

// 540 rows of 4-line blocks in 5 columns, a line every 13.89 us and a frame every 2250 lines, so
// 120 Hz bands of the given depth move from frame to frame; relative noise of 0.4 %.
std::vector<std::int32_t> Frame(std::int32_t f, double depth) {
  std::vector<std::int32_t> grid(540 * 5);
  for (std::uint32_t i = 0; i < grid.size(); ++i) {
    const std::int32_t r = i / 5, c = i % 5;
    const double t = (f * 2250.0 + r * 4) * 13.89e-6;
    const double shade = 400000 + 100000 * std::sin(r / 27.8 + c) + 50000 * ((r / 43 + c) % 2);
    const double noise = ((i * 2654435761u + f * 40503u) >> 16) / 65536.0 - 0.5;
    grid[i] = static_cast<std::int32_t>(
        std::lround(shade * (1 + depth * std::cos(2 * M_PI * 120 * t)) * (1 + 0.008 * noise)));
  }
  return grid;
}

// The result codes of `frames` DETECTs in the 50 Hz state, from load-time state.
std::vector<std::int32_t> Detections(double depth, std::int32_t frames) {
  kestrel_test::ResetLibraryState();
  FlkInitPara init{FLK_SENSOR_2X5, 1389, 2160, 100, 100e6, 4, 0};
  testing::internal::CaptureStdout();
  SendCmdFlk(CMD_INIT, &init, nullptr);
  testing::internal::GetCapturedStdout();
  std::vector<std::int32_t> prev = Frame(0, depth);
  std::vector<std::int32_t> results;
  for (std::int32_t f = 1; f <= frames; ++f) {
    std::vector<std::int32_t> cur = Frame(f, depth);
    // Three windows over the frame's 540 rows: win_ht is the total.
    FlkDetectPara detect{FLK_SENSOR_2X5, prev.data(), cur.data(), 3, 5, 100, 540, 0, {}, {}, {},
                         nullptr};
    std::int32_t result = -1;
    SendCmdFlk(CMD_DETECT, &detect, &result);
    results.push_back(result);
    prev.swap(cur);
  }
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  kestrel_test::ResetLibraryState();
  return results;
}

// Moving 120 Hz banding is the other mains' light: 3 from the third frame, when the test may
// first decide. Steady light never switches.
TEST(TwoByFiveEndToEnd, MovingBandingAt120HzSwitchesAndSteadyLightDoesNot) {
  EXPECT_EQ(Detections(0.05, 6), (std::vector<std::int32_t>{0, 0, 3, 3, 3, 3}));
  EXPECT_EQ(Detections(0.0, 30), std::vector<std::int32_t>(30, 0));
}

}  // namespace
