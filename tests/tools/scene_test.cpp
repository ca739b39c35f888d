// SPDX-License-Identifier: Apache-2.0
// Simulator physics: rolling-shutter banding at twice the mains frequency along the rows, its
// cancellation at whole flicker periods, and the statistics each sensor family delivers.
#include "host/scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

namespace kestrel_host {
namespace {

// The frequency (60..200 Hz, 1 Hz steps) where `v`, sampled every `dt` seconds, has the most
// energy once its mean is removed.
double PeakHz(const std::vector<double>& v, double dt) {
  double mean = 0.0;
  for (double x : v) mean += x / static_cast<double>(v.size());
  double best = 0.0, best_hz = 0.0;
  for (double hz = 60.0; hz <= 200.0; hz += 1.0) {
    std::complex<double> sum;
    for (std::size_t n = 0; n < v.size(); ++n) {
      sum += (v[n] - mean) *
             std::polar(1.0, 2.0 * std::numbers::pi * hz * dt * static_cast<double>(n));
    }
    if (std::norm(sum) > best) best = std::norm(sum), best_hz = hz;
  }
  return best_hz;
}

// A noise-free scene, smooth unless given texture.
SceneSetup Flat(double mains_hz, double texture = 0.0) {
  SceneSetup scene;
  scene.mains_hz = mains_hz;
  scene.texture = texture;
  scene.noise = 0.0;
  return scene;
}

TEST(MeanLight, WorkedValues) {
  // 10 ms of 120 Hz light (1.2 periods) ending at phase 0: 1 + 0.25 sin(2.4 pi) / (2.4 pi).
  EXPECT_NEAR(MeanLight(120.0, 0.25, 0.0, 0.0, 0.01), 1.0 + 0.25 * 0.9510565163 / 7.5398223686,
              1e-9);
  EXPECT_EQ(MeanLight(0.0, 0.25, 0.0, 0.01, 0.01), 1.0);          // steady light
  EXPECT_NEAR(MeanLight(100.0, 0.5, 0.0, 0.0, 0.0), 1.5, 1e-12);  // an instant
}

struct BandCase {
  double mains_hz, exposure_s;
  bool banded;
};

class Banding : public ::testing::TestWithParam<BandCase> {};

// Along the rows of one frame the light has its energy at twice the mains frequency, unless the
// exposure is a whole number of flicker periods.
TEST_P(Banding, AlongTheRows) {
  const BandCase c = GetParam();
  const SensorSetup sensor = DefaultSensor(0);
  SceneSimulator sim(sensor, Flat(c.mains_hz), 2);
  std::vector<double> rows;
  for (std::int32_t r = 0; r < sensor.StatRows(); ++r)
    rows.push_back(sim.RowLight(0, r, c.exposure_s));
  if (c.banded) {
    EXPECT_NEAR(PeakHz(rows, sensor.LineTime()), 2.0 * c.mains_hz, 3.0);
  } else {
    for (double v : rows) ASSERT_NEAR(v, 1.0, 1e-9);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Scene, Banding,
    ::testing::Values(BandCase{60.0, 0.010, true}, BandCase{50.0, 0.0125, true},
                      BandCase{60.0, 1.0 / 120.0, false}, BandCase{60.0, 2.0 / 120.0, false},
                      BandCase{50.0, 0.010, false}, BandCase{50.0, 0.020, false},
                      BandCase{0.0, 0.007, false}),
    [](const auto& info) {
      return "Mains" + std::to_string(static_cast<int>(info.param.mains_hz)) + "Exposure" +
             std::to_string(std::lround(info.param.exposure_s * 1e6)) + "us";
    });

// The default timing (37.5 ms, 4.5 periods of 120 Hz) moves the bands between frames; a frame of
// exactly four periods (1/30 s: 4000 lines of 2000 clocks at 240 MHz) leaves them in place.
TEST(Banding, MovesBetweenFramesOnlyOffWholePeriods) {
  SensorSetup still = DefaultSensor(0);
  still.line_length = 2000;
  still.pclk = 240e6;
  still.column_length = 4000;
  const auto mean_move = [](const SensorSetup& sensor) {
    SceneSimulator sim(sensor, Flat(60.0), 2);
    double moved = 0.0;
    for (std::int32_t r = 0; r < sensor.StatRows(); ++r)
      moved += std::fabs(sim.RowLight(1, r, 0.01) - sim.RowLight(0, r, 0.01));
    return moved / sensor.StatRows();
  };
  EXPECT_GT(mean_move(DefaultSensor(0)), 1e-3);
  EXPECT_LT(mean_move(still), 1e-9);
}

// Panning: with steady light and no noise, frame 1 is frame 0 moved up by the motion; the same
// seed renders the same frames.
TEST(Scene, MotionShiftsTheRowsAndSeedRepeats) {
  const SensorSetup sensor = DefaultSensor(0);
  SceneSetup scene = Flat(0.0, 1.0);
  scene.motion = 8.0;  // eight statistics rows of one line
  SceneSimulator sim(sensor, scene, 2), again(sensor, scene, 2);
  const Frame f0 = sim.Generate(0, 0.01), f1 = sim.Generate(1, 0.01);
  const std::size_t shift = 8 * static_cast<std::size_t>(sensor.n_win_w);
  for (std::size_t i = 0; i + shift < f0.grid.size(); ++i)
    ASSERT_EQ(f1.grid[i], f0.grid[i + shift]) << i;
  EXPECT_EQ(again.Generate(0, 0.01).grid, f0.grid);
}

// A frame's rows carry the closed-form light of RowLight: without noise, the flickering frame
// over the steady one is the row's light, here on 2x5 rows of four lines, shifted by motion.
TEST(Scene, FrameRowsCarryTheRowLight) {
  const SensorSetup sensor = DefaultSensor(2);
  SceneSetup lit = Flat(60.0, 1.0), steady = Flat(0.0, 1.0);
  lit.motion = steady.motion = 2.5;
  SceneSimulator a(sensor, lit, 4), b(sensor, steady, 4);
  const Frame f = a.Generate(3, 0.007), g = b.Generate(3, 0.007);
  for (std::int32_t r = 0; r < sensor.StatRows(); r += 37) {
    const std::size_t k = static_cast<std::size_t>(r) * 8 + 5;
    ASSERT_NEAR(static_cast<double>(f.grid[k]) / static_cast<double>(g.grid[k]),
                a.RowLight(3, r, 0.007), 1e-4)
        << r;
  }
}

// Each family's timing and rows, and its values clipping at the top of the range its INIT
// covers: half a 64-pixel window of 16-bit codes; a 10-bit level; the green half of 4 x 64
// 12-bit pixels.
TEST(Scene, GeometryAndFullScalePerFamily) {
  SceneSetup bright;
  bright.brightness = 3.0;  // far past full scale: everything clips
  const std::int32_t rows[3] = {2400, 900, 600};
  const std::int64_t full[3] = {32 * 65535, 1023, 4 * 64 / 2 * 4095};
  for (std::int32_t type : {0, 1, 2}) {
    const SensorSetup sensor = DefaultSensor(type);
    EXPECT_NEAR(sensor.FramePeriod(), 0.0375, 1e-12);
    EXPECT_EQ(sensor.StatRows(), rows[type]);
    SceneSimulator sim(sensor, bright, 2);
    const Frame f = sim.Generate(0, 0.01);
    ASSERT_EQ(f.grid.size(), static_cast<std::size_t>(rows[type] * 8));
    EXPECT_EQ(*std::max_element(f.grid.begin(), f.grid.end()), full[type]) << "type " << type;
  }
}

}  // namespace
}  // namespace kestrel_host
