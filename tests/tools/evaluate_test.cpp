// SPDX-License-Identifier: Apache-2.0
// The evaluation: its figures are those of simulate on each cell, its frames carry the truth of
// the state they were judged in, and it knows which cells no tuning can detect.
#include "host/evaluate.h"

#include <gtest/gtest.h>

#include "host/error.h"
#include "support.h"

namespace kestrel_host {
namespace {

class EvaluateTest : public kestrel_test::LibraryTest {};

// A tiny matrix: a switch (and the frames after it under the own mains), steady light, and a
// cell whose brightness step the test skips.
EvalMatrix Tiny() {
  return ParseMatrix(R"({"defaults": {"frames": 12},
    "cells": [
      {"name": "switch", "type": 2, "mains": 60, "state": 50, "seeds": [5, 6]},
      {"name": "steady", "type": 0, "mains": 0, "state": 60, "seeds": [7]},
      {"name": "step", "type": 1, "mains": 50, "state": 50, "steps": [[4, 0.25]], "seeds": [8]}
    ]})",
                     "tiny");
}

TEST_F(EvaluateTest, SameFiguresAsSimulateOnEachCell) {
  const EvalMatrix m = Tiny();
  std::vector<LabelledFrame> frames;
  const EvalReport report = Evaluate(m, nullptr, {}, &frames);
  ASSERT_EQ(report.cells.size(), 3u);
  std::size_t at = 0;
  for (std::size_t i = 0; i < m.cells.size(); ++i) {
    const EvalCell& c = m.cells[i];
    std::int32_t switched = 0, skipped = 0, judged = 0;
    for (const std::uint32_t seed : c.seeds) {
      SceneSetup scene = c.scene;
      scene.seed = seed;
      const RunResult run = Simulate(c.sensor, scene, c.frames, c.exposure_s, c.state_hz, {});
      switched += run.first_switch_frame >= 0;
      skipped += run.skipped;
      judged += static_cast<std::int32_t>(run.results.size());
      for (const FrameResult& r : run.results) {
        const LabelledFrame& f = frames.at(at++);
        EXPECT_EQ(f.cell, i);
        EXPECT_EQ(f.frame, r.frame);
        EXPECT_EQ(f.state_hz, r.state_hz);
        EXPECT_EQ(f.freq_out, r.energies);
        EXPECT_EQ(f.valid, r.counted);
      }
      if (i == 0) {
        EXPECT_EQ(report.cells[0].latencies.at(seed - 5), run.first_switch_frame);
      }
    }
    EXPECT_EQ(report.cells[i].frames, judged) << c.name;
    EXPECT_EQ(report.cells[i].NotCounted(), skipped) << c.name;
    EXPECT_EQ(report.cells[i].detected, i == 0 ? switched : 0) << c.name;
  }
  EXPECT_EQ(at, frames.size());
  // Both switch runs switched at frame 3 (the third scored frame); the rest is calm.
  EXPECT_EQ(report.cells[0].detected, 2);
  EXPECT_EQ(report.cells[0].LatencyMedian(), 3.0);
  EXPECT_EQ(report.total.false_switches, 0);
  EXPECT_EQ(report.cells[2].not_counted.at("not counted: brightness changed between the frames"),
            1);
  // After the switch the 60 Hz light is the state's own mains.
  EXPECT_EQ(frames[1].truth, Truth::kOtherMains);
  EXPECT_EQ(frames[5].truth, Truth::kOwnMains);
  EXPECT_EQ(report.cells[0].calm_frames, 2 * 8);
}

struct DetectableCase {
  const char* name;
  const char* cell;
  bool detectable;
};

class DetectableTest : public ::testing::TestWithParam<DetectableCase> {};

TEST_P(DetectableTest, OnlyWhereBandsMoveAndSurviveTheExposure) {
  const EvalMatrix m =
      ParseMatrix(std::string(R"({"cells": [)") + GetParam().cell + "]}", "detectable");
  EXPECT_EQ(Detectable(m.cells[0], nullptr), GetParam().detectable);
}

INSTANTIATE_TEST_SUITE_P(
    Evaluate, DetectableTest,
    ::testing::Values(
        DetectableCase{"OtherMains", R"({"mains": 60, "state": 50})", true},
        DetectableCase{"OwnMains", R"({"mains": 50, "state": 50})", false},
        DetectableCase{"Steady", R"({"mains": 0, "state": 60})", false},
        // 1/30 s is four 120 Hz periods: the bands stand still.
        DetectableCase{"WholePeriods", R"({"mains": 60, "state": 50, "fps": 30})", false},
        // 29.97 fps drifts 0.004 of a period a frame: 0.12 over 30 frames, still.
        DetectableCase{"NearlyWhole", R"({"mains": 60, "state": 50, "fps": 29.97})", false},
        DetectableCase{"NearlyWholeLongRun",
                       R"({"mains": 60, "state": 50, "fps": 29.97, "frames": 100})", true},
        // 25 ms is three 120 Hz periods: the exposure averages them out.
        DetectableCase{"ExposureCancels", R"({"mains": 60, "state": 50, "exposure_ms": 25})",
                       false}),
    [](const ::testing::TestParamInfo<DetectableCase>& info) { return info.param.name; });

TEST(EvaluateMatrix, RefusesWithTheCellAndMemberNamed) {
  EXPECT_THROW(ParseMatrix(R"({"cells": [{"name": "a", "mains": 55}]})", "m"), HostError);
  try {
    ParseMatrix(R"({"cells": [{"name": "a", "speed": 1}]})", "m.json");
    FAIL();
  } catch (const HostError& e) {
    EXPECT_STREQ(e.what(), "m.json: cell 0 (a): unknown member 'speed'");
  }
}

// The built-in matrix survives its own file format.
TEST(EvaluateMatrix, DefaultRoundTrips) {
  const EvalMatrix m = DefaultMatrix();
  const EvalMatrix back = ParseMatrix(FormatMatrix(m), "default");
  ASSERT_EQ(back.cells.size(), m.cells.size());
  for (std::size_t i = 0; i < m.cells.size(); ++i) {
    EXPECT_EQ(back.cells[i].name, m.cells[i].name);
    EXPECT_EQ(back.cells[i].sensor.column_length, m.cells[i].sensor.column_length);
    EXPECT_NEAR(back.cells[i].exposure_s, m.cells[i].exposure_s, 1e-9);
    EXPECT_EQ(Detectable(back.cells[i], nullptr), Detectable(m.cells[i], nullptr));
  }
}

}  // namespace
}  // namespace kestrel_host
