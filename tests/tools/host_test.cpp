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

TEST(ExposureForMains, NearestWholePeriodAtLeastOne) {
  EXPECT_NEAR(ExposureForMains(0.010, 60), 1.0 / 120.0, 1e-15);
  EXPECT_NEAR(ExposureForMains(1.0 / 120.0, 50), 0.010, 1e-15);
  EXPECT_NEAR(ExposureForMains(0.010, 50), 0.010, 1e-15);
  EXPECT_NEAR(ExposureForMains(0.003, 60), 1.0 / 120.0, 1e-15);  // never below one period
  EXPECT_NEAR(ExposureForMains(0.020, 60), 2.0 / 120.0, 1e-15);
  EXPECT_NEAR(ExposureForMains(0.031, 50), 0.030, 1e-15);
  EXPECT_EQ(ExposureForMains(0.007, 0), 0.007);  // no mains: nothing to cancel
}

// A family whose pipeline switches on its default scene: the first decision needs three scored
// frames, the host confirms it at once, and the next frames are judged afresh in the new state
// at an exposure that cancels the new mains' bands.
void ExpectOneConfirmedSwitch(std::int32_t type) {
  SceneSetup scene;
  const RunResult run = Simulate(DefaultSensor(type), scene, 20, 0.010, 50, false, nullptr);
  ASSERT_EQ(run.results.size(), 19u);
  ASSERT_GE(run.first_switch_frame, 3) << "type " << type;
  EXPECT_EQ(run.switches, 1);
  EXPECT_EQ(run.final_state_hz, 60);
  for (const FrameResult& r : run.results) {
    if (r.frame < run.first_switch_frame) {
      EXPECT_EQ(r.state_hz, 50);
      EXPECT_EQ(r.result, 2);
      EXPECT_DOUBLE_EQ(r.exposure_s, 0.010);
    } else if (r.frame == run.first_switch_frame) {
      EXPECT_TRUE(r.switched);
      EXPECT_EQ(r.result, 3);
      EXPECT_NEAR(r.next_exposure_s, 1.0 / 120.0, 1e-15);
      EXPECT_EQ(r.action,
                "switch to 60 Hz: SET_STATE 1, RESET_QUEUE, exposure 10.000 ms -> 8.333 ms");
    } else {
      EXPECT_EQ(r.state_hz, 60);
      EXPECT_EQ(r.result, 3);
      EXPECT_NEAR(r.exposure_s, 1.0 / 120.0, 1e-15);
    }
  }
  // The queue was reset: the test warms up again.
  const FrameResult& after = run.results[static_cast<std::size_t>(run.first_switch_frame)];
  EXPECT_EQ(after.note, "warming up (1 scored)");
}

TEST_F(HostTest, StandardSwitchesOnceAndSettles) { ExpectOneConfirmedSwitch(0); }
TEST_F(HostTest, SonySwitchesOnceAndSettles) { ExpectOneConfirmedSwitch(1); }
TEST_F(HostTest, TwoByFiveSwitchesOnceAndSettles) { ExpectOneConfirmedSwitch(2); }

// The right state already, or no flicker at all: nothing to do.
TEST_F(HostTest, NoSwitchWithoutTheOtherMains) {
  for (std::int32_t type : {0, 1, 2}) {
    for (double mains : {0.0, 50.0}) {
      SceneSetup scene;
      scene.mains_hz = mains;
      const RunResult run = Simulate(DefaultSensor(type), scene, 20, 0.010, 50, false, nullptr);
      EXPECT_EQ(run.switches, 0) << "type " << type << " mains " << mains;
      EXPECT_EQ(run.final_state_hz, 50);
    }
  }
}

// Replaying a recording gives the simulation's own per-frame results, figure for figure.
TEST_F(HostTest, RecordReplayRoundTrip) {
  for (std::int32_t type : {0, 1, 2}) {
    SceneSetup scene;
    scene.motion = 1.5;
    Recording recording;
    const RunResult live = Simulate(DefaultSensor(type), scene, 12, 0.010, 50, false, &recording);
    ASSERT_EQ(recording.frames.size(), 12u);
    kestrel_test::ResetLibraryState();
    const Recording loaded = ParseRecording(FormatRecording(recording), "memory");
    const RunResult again = Replay(loaded, 50, false);
    ASSERT_EQ(again.results.size(), live.results.size());
    for (std::size_t i = 0; i < live.results.size(); ++i) {
      const FrameResult& a = live.results[i];
      const FrameResult& b = again.results[i];
      EXPECT_EQ(a.result, b.result) << "frame " << a.frame;
      EXPECT_EQ(a.energies, b.energies) << "frame " << a.frame;
      EXPECT_EQ(a.score, b.score) << "frame " << a.frame;
      EXPECT_EQ(a.seq, b.seq) << "frame " << a.frame;
      EXPECT_EQ(a.switched, b.switched) << "frame " << a.frame;
      EXPECT_EQ(a.exposure_s, b.exposure_s) << "frame " << a.frame;
      EXPECT_EQ(a.note, b.note) << "frame " << a.frame;
    }
    EXPECT_EQ(again.first_switch_frame, live.first_switch_frame);
  }
}

// The other way round: a camera in the 60 Hz state under 50 Hz light goes to 50 Hz.
TEST_F(HostTest, SixtyToFifty) {
  for (std::int32_t type : {0, 1, 2}) {
    SceneSetup scene;
    scene.mains_hz = 50.0;
    const RunResult run = Simulate(DefaultSensor(type), scene, 20, 1.0 / 120.0, 60, false, nullptr);
    EXPECT_EQ(run.final_state_hz, 50) << "type " << type;
    ASSERT_GE(run.first_switch_frame, 3);
    EXPECT_NEAR(run.results[static_cast<std::size_t>(run.first_switch_frame) - 1].next_exposure_s, 0.010, 1e-15);
  }
}

// A frame period of four 120 Hz periods (30 frames/s) leaves the bands where they were: the
// ratio of two frames cancels them with the scene, and nothing can be detected.
TEST_F(HostTest, BandsStandingStillDoNotSwitch) {
  for (std::int32_t type : {0, 1, 2}) {
    SensorSetup sensor = DefaultSensor(type);
    sensor.column_length = static_cast<std::int32_t>(std::lround(sensor.pclk / (sensor.line_length * 30.0)));
    const RunResult run = Simulate(sensor, SceneSetup{}, 20, 0.010, 50, false, nullptr);
    EXPECT_EQ(run.switches, 0) << "type " << type;
  }
}

// A scene brightness step beyond the detector's exposure check: that frame does not count.
TEST_F(HostTest, BrightnessStepIsNotCounted) {
  SceneSetup scene;
  scene.mains_hz = 0.0;
  scene.steps = {{5, 0.25}};  // two stops darker: even through a tone curve, beyond 0.7
  const RunResult run = Simulate(DefaultSensor(1), scene, 8, 0.010, 50, false, nullptr);
  EXPECT_EQ(run.results[3].frame, 4);
  EXPECT_EQ(run.results[3].note, "");
  EXPECT_EQ(run.results[4].frame, 5);
  EXPECT_EQ(run.results[4].note, "skipped: brightness changed");
  EXPECT_EQ(run.skipped, 1);
}

// Geometry the library cannot take: its refusal, naming the limit, becomes the host's error.
TEST_F(HostTest, RefusalNamesTheLimit) {
  SensorSetup sensor = DefaultSensor(2);
  sensor.n_win_h = 11;
  sensor.win_ht = 605;
  try {
    Simulate(sensor, SceneSetup{}, 3, 0.010, 50, false, nullptr);
    FAIL() << "accepted";
  } catch (const HostError& e) {
    EXPECT_EQ(std::string(e.what()),
              "frame 1: the library refused DETECT: [detectFlicker_SW_2x5] 11 windows, limit 1..10, result 2");
  }
}

// A refused INIT stops the session before any frame, with the library's words.
TEST_F(HostTest, RefusedInit) {
  SensorSetup sensor = DefaultSensor(0);
  sensor.column_length = 70000;
  try {
    LibrarySession session(sensor, 50, 0.010, false);
    FAIL() << "accepted";
  } catch (const HostError& e) {
    EXPECT_EQ(std::string(e.what()), "the library refused INIT: [flicker_init] column_length 70000 outside 0..65536");
  }
  // The next session starts cleanly.
  EXPECT_NO_THROW(LibrarySession(DefaultSensor(0), 50, 0.010, false));
}

TEST_F(HostTest, BadRunsAreRefusedBeforeTheLibrary) {
  EXPECT_THROW(Simulate(DefaultSensor(0), SceneSetup{}, 1, 0.010, 50, false, nullptr), HostError);
  EXPECT_THROW(Simulate(DefaultSensor(0), SceneSetup{}, 5, 0.040, 50, false, nullptr), HostError);
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
