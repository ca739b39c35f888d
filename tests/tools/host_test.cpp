// SPDX-License-Identifier: Apache-2.0
// The auto-exposure host: exposure policy, switching through SET_STATE and RESET_QUEUE, the
// record/replay round trip and the library's refusals.
#include "host/host.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "host/error.h"
#include "support.h"

namespace kestrel_host {
namespace {

class HostTest : public kestrel_test::LibraryTest {};

TEST(ExposureForMains, NearestWholePeriodThatFitsTheFrame) {
  EXPECT_NEAR(ExposureForMains(0.010, 60, 0.0375), 1.0 / 120.0, 1e-15);
  EXPECT_NEAR(ExposureForMains(0.003, 60, 0.0375), 1.0 / 120.0, 1e-15);  // never below one period
  EXPECT_NEAR(ExposureForMains(0.020, 60, 0.0375), 2.0 / 120.0, 1e-15);
  EXPECT_NEAR(ExposureForMains(0.036, 50, 0.0375), 0.030, 1e-15);  // 40 ms would outlast the frame
  EXPECT_NEAR(ExposureForMains(0.040, 50, 0.040), 0.040, 1e-15);   // an exact fit stays
  EXPECT_NEAR(ExposureForMains(0.010, 50, 0.005), 0.010, 1e-15);   // one period even so
  EXPECT_EQ(ExposureForMains(0.007, 0, 0.0375), 0.007);            // no mains: nothing to cancel
}

struct Scenario {
  std::int32_t type;
  bool zhdr;
  double mains_hz;
  std::int32_t state_hz;
  std::int32_t
      column_length;          // 0: the family's; else frames of exactly 1/30 s, four 120 Hz periods
  std::int32_t switch_frame;  // -1: never switches
};

class HostScenario : public kestrel_test::LibraryTest,
                     public ::testing::WithParamInterface<Scenario> {};

// The README's scenarios for every family: the first decision needs three scored frames, the
// host confirms it at once, and the next frames are judged afresh in the new state at an
// exposure that cancels the new mains' bands.
TEST_P(HostScenario, SwitchesWhereTheReadmeSays) {
  const Scenario c = GetParam();
  SensorSetup sensor = DefaultSensor(c.type, c.zhdr);
  if (c.column_length != 0) sensor.column_length = c.column_length;
  SceneSetup scene;
  scene.mains_hz = c.mains_hz;
  const double start = c.state_hz == 50 ? 0.010 : 1.0 / 120.0;
  const double next = c.state_hz == 50 ? 1.0 / 120.0 : 0.010;
  const RunResult run = Simulate(sensor, scene, 20, start, c.state_hz, false, nullptr);
  ASSERT_EQ(run.results.size(), 19u);
  EXPECT_EQ(run.first_switch_frame, c.switch_frame);
  EXPECT_EQ(run.switches, c.switch_frame < 0 ? 0 : 1);
  const std::int32_t other = c.state_hz == 50 ? 60 : 50;
  EXPECT_EQ(run.final_state_hz, c.switch_frame < 0 ? c.state_hz : other);
  const auto code = [](std::int32_t hz) { return hz == 50 ? 2 : 3; };
  for (const FrameResult& r : run.results) {
    const bool decided = c.switch_frame >= 0 && r.frame >= c.switch_frame;
    const bool after = decided && r.frame > c.switch_frame;
    EXPECT_EQ(r.state_hz, after ? other : c.state_hz) << r.frame;
    EXPECT_EQ(r.result, code(decided ? other : c.state_hz)) << r.frame;
    EXPECT_NEAR(r.exposure_s, after ? next : start, 1e-15) << r.frame;
    EXPECT_EQ(r.switched, r.frame == c.switch_frame) << r.frame;
  }
  if (c.switch_frame < 0) return;
  EXPECT_EQ(run.results[static_cast<std::size_t>(c.switch_frame) - 1].action,
            c.state_hz == 50
                ? "switch to 60 Hz: SET_STATE 1, RESET_QUEUE, exposure 10.000 ms -> 8.333 ms"
                : "switch to 50 Hz: SET_STATE 0, RESET_QUEUE, exposure 8.333 ms -> 10.000 ms");
  // The queue was reset: the test warms up again.
  EXPECT_EQ(run.results[static_cast<std::size_t>(c.switch_frame)].note, "warming up (1 scored)");
}

INSTANTIATE_TEST_SUITE_P(
    Host, HostScenario,
    ::testing::Values(Scenario{0, false, 60, 50, 0, 3}, Scenario{0, true, 60, 50, 0, 3},
                      Scenario{1, false, 60, 50, 0, 3}, Scenario{2, false, 60, 50, 0, 3},
                      Scenario{0, false, 50, 60, 0, 3}, Scenario{1, false, 50, 60, 0, 8},
                      Scenario{2, false, 50, 60, 0, 3}, Scenario{0, false, 0, 50, 0, -1},
                      Scenario{1, false, 50, 50, 0, -1}, Scenario{2, false, 0, 50, 0, -1},
                      Scenario{0, false, 60, 50, 2667, -1}, Scenario{1, false, 60, 50, 1111, -1},
                      Scenario{2, false, 60, 50, 2667, -1}),
    [](const auto& info) {
      const Scenario& c = info.param;
      return "Type" + std::to_string(c.type) + (c.zhdr ? "Zhdr" : "") + "Light" +
             std::to_string(static_cast<int>(c.mains_hz)) + "From" + std::to_string(c.state_hz) +
             (c.column_length != 0 ? "FrameLength" + std::to_string(c.column_length) : "");
    });

// A scene brightness step beyond the detectors' exposure check: the standard and SONY tests do
// not count that frame; the 2x5 test, which has no such gate, queues a score for it.
TEST_F(HostTest, BrightnessStep) {
  SceneSetup scene;
  scene.mains_hz = 0.0;
  scene.steps = {{5, 0.25}};  // two stops darker: even through a tone curve, beyond 0.7
  for (std::int32_t type : {1, 2}) {
    const RunResult run = Simulate(DefaultSensor(type), scene, 8, 0.010, 50, false, nullptr);
    EXPECT_EQ(run.results[3].note, "");
    EXPECT_EQ(run.results[4].frame, 5);
    EXPECT_EQ(run.results[4].note, type == 1 ? "not counted: brightness changed between the frames"
                                             : "brightness changed, scored all the same");
    EXPECT_EQ(run.skipped, type == 1 ? 1 : 0);
  }
}

// A recording needs two frames for one DETECT.
TEST_F(HostTest, ReplayOfOneFrameIsRefused) {
  Recording one;
  one.sensor = DefaultSensor(1);
  one.frames.resize(1);
  EXPECT_THROW(Replay(one, 50, false), HostError);
}

// The library's own standard-output lines (table timings) stay off the tool's output.
TEST_F(HostTest, LibraryStdoutIsKeptAway) {
  ::testing::internal::CaptureStdout();
  { LibrarySession session(DefaultSensor(2), 50, 0.010, false); }
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace kestrel_host
