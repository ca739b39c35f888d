// SPDX-License-Identifier: Apache-2.0
// Simulator physics: rolling-shutter banding at twice the mains frequency along the rows, its
// cancellation at whole flicker periods, and the statistics each sensor family delivers.
#include "host/scene.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <ostream>
#include <string>
#include <vector>

namespace kestrel_host {
namespace {

// Energy of `v` (sampled every `dt` seconds) at frequency `hz`, mean removed.
double Energy(const std::vector<double>& v, double dt, double hz) {
  double mean = 0.0;
  for (double x : v) mean += x;
  mean /= static_cast<double>(v.size());
  double re = 0.0, im = 0.0;
  for (std::size_t n = 0; n < v.size(); ++n) {
    const double phase = 2.0 * std::numbers::pi * hz * dt * static_cast<double>(n);
    re += (v[n] - mean) * std::cos(phase);
    im += (v[n] - mean) * std::sin(phase);
  }
  return re * re + im * im;
}

// The frequency (60..200 Hz, 1 Hz steps) where `v` has the most energy.
double PeakHz(const std::vector<double>& v, double dt) {
  double best = 0.0, best_hz = 0.0;
  for (double hz = 60.0; hz <= 200.0; hz += 1.0) {
    const double e = Energy(v, dt, hz);
    if (e > best) {
      best = e;
      best_hz = hz;
    }
  }
  return best_hz;
}

SceneSetup Flat(double mains_hz) {
  SceneSetup scene;
  scene.mains_hz = mains_hz;
  scene.texture = 0.0;
  scene.noise = 0.0;
  return scene;
}

TEST(MeanLight, WorkedValues) {
  // Over a whole number of 120 Hz periods the light averages to the steady level.
  EXPECT_NEAR(MeanLight(120.0, 0.25, 0.3, 0.0123, 1.0 / 120.0), 1.0, 1e-12);
  EXPECT_NEAR(MeanLight(120.0, 0.25, 0.3, 0.0123, 2.0 / 120.0), 1.0, 1e-12);
  EXPECT_NEAR(MeanLight(100.0, 0.4, 1.0, 0.5, 0.03), 1.0, 1e-12);
  // 10 ms of 120 Hz light (1.2 periods), ending at phase 0: 1 + 0.25 sin(2.4 pi) / (2.4 pi).
  EXPECT_NEAR(MeanLight(120.0, 0.25, 0.0, 0.0, 0.01), 1.0 + 0.25 * 0.9510565163 / 7.5398223686, 1e-9);
  // Steady light, and a zero exposure that samples the light at one instant.
  EXPECT_EQ(MeanLight(0.0, 0.25, 0.0, 0.01, 0.01), 1.0);
  EXPECT_NEAR(MeanLight(100.0, 0.5, 0.0, 0.0, 0.0), 1.5, 1e-12);
}

TEST(CompandStandard, Knots) {
  EXPECT_DOUBLE_EQ(CompandStandard(0.0), 0.0);
  EXPECT_DOUBLE_EQ(CompandStandard(512.0 / 65536.0), 20.0);
  EXPECT_DOUBLE_EQ(CompandStandard(0.25), 126.0);
  EXPECT_DOUBLE_EQ(CompandStandard(0.5), 180.0);
  EXPECT_DOUBLE_EQ(CompandStandard(1.0), 255.0);
  EXPECT_DOUBLE_EQ(CompandStandard(3.0), 255.0);  // clipped
  EXPECT_DOUBLE_EQ(CompandStandard(0.75), 217.5);
}

struct BandCase {
  double mains_hz;
  double exposure_s;
  bool banded;
};

void PrintTo(const BandCase& c, std::ostream* os) {
  *os << c.mains_hz << " Hz mains, " << c.exposure_s * 1e3 << " ms" << (c.banded ? ", banded" : ", flat");
}

class Banding : public ::testing::TestWithParam<BandCase> {};

// Along the rows of one frame, the light has its energy at twice the mains frequency, unless
// the exposure is a whole number of flicker periods.
TEST_P(Banding, AlongTheRows) {
  const BandCase c = GetParam();
  const SensorSetup sensor = DefaultSensor(0);
  SceneSimulator sim(sensor, Flat(c.mains_hz), 2);
  std::vector<double> rows;
  for (std::int32_t r = 0; r < sensor.StatRows(); ++r) rows.push_back(sim.RowLight(0, r, c.exposure_s));
  const double dt = sensor.LineTime();
  if (!c.banded) {
    for (double v : rows) EXPECT_NEAR(v, 1.0, 1e-9);
    return;
  }
  EXPECT_NEAR(PeakHz(rows, dt), 2.0 * c.mains_hz, 3.0);
}

INSTANTIATE_TEST_SUITE_P(Scene, Banding,
                         ::testing::Values(BandCase{60.0, 0.010, true}, BandCase{50.0, 0.0125, true},
                                           BandCase{60.0, 1.0 / 120.0, false},
                                           BandCase{60.0, 2.0 / 120.0, false},
                                           BandCase{50.0, 0.010, false}, BandCase{50.0, 0.020, false},
                                           BandCase{0.0, 0.007, false}),
                         [](const ::testing::TestParamInfo<BandCase>& info) {
                           return "Mains" + std::to_string(static_cast<int>(info.param.mains_hz)) + "Exposure" +
                                  std::to_string(static_cast<int>(std::lround(info.param.exposure_s * 1e6))) + "us";
                         });

// The default timing moves the bands between frames; a frame of exactly four 120 Hz periods
// (33.333 ms) leaves them where they were.
TEST(Banding, MovesBetweenFramesOnlyOffWholePeriods) {
  SensorSetup moving = DefaultSensor(0);
  SceneSimulator a(moving, Flat(60.0), 2);
  double largest = 0.0;
  for (std::int32_t r = 0; r < moving.StatRows(); ++r) {
    largest = std::max(largest, std::fabs(a.RowLight(1, r, 0.01) - a.RowLight(0, r, 0.01)));
  }
  EXPECT_GT(largest, 0.02);

  SensorSetup still = moving;
  still.line_length = 2000;  // 8.333 us lines at 240 MHz, 4000 lines: 1/30 s
  still.pclk = 240e6;
  still.column_length = 4000;
  SceneSimulator b(still, Flat(60.0), 2);
  for (std::int32_t r = 0; r < still.StatRows(); ++r) {
    EXPECT_NEAR(b.RowLight(1, r, 0.01), b.RowLight(0, r, 0.01), 1e-9);
  }
}

// The ratio of two frames (what the detector looks at) cancels the scene and keeps the bands.
TEST(Banding, FrameRatioKeepsOnlyTheBands) {
  SensorSetup sensor = DefaultSensor(1);  // linear statistics, one per line
  SceneSetup scene = Flat(60.0);
  scene.texture = 1.0;
  SceneSimulator sim(sensor, scene, 2);
  const Frame f0 = sim.Generate(0, 0.01);
  const Frame f1 = sim.Generate(1, 0.01);
  std::vector<double> ratio;
  for (std::int32_t r = 0; r < sensor.StatRows(); ++r) {
    const std::size_t i = static_cast<std::size_t>(r) * sensor.n_win_w;
    ratio.push_back(std::log(static_cast<double>(f1.grid[i]) / static_cast<double>(f0.grid[i])));
  }
  EXPECT_NEAR(PeakHz(ratio, sensor.LineTime()), 120.0, 3.0);

  // At 8.333 ms the two frames agree but for the 10-bit rounding.
  SceneSimulator still(sensor, scene, 2);
  const Frame g0 = still.Generate(0, 1.0 / 120.0);
  const Frame g1 = still.Generate(1, 1.0 / 120.0);
  for (std::size_t i = 0; i < g0.grid.size(); ++i) EXPECT_LE(std::abs(g1.grid[i] - g0.grid[i]), 1);
}

// Panning: with steady light and no noise, frame 1 is frame 0 moved by the motion.
TEST(Scene, MotionShiftsTheRows) {
  SensorSetup sensor = DefaultSensor(0);
  SceneSetup scene = Flat(0.0);
  scene.texture = 1.0;
  scene.motion = 8.0;  // eight statistics rows of one line
  SceneSimulator sim(sensor, scene, 2);
  const Frame f0 = sim.Generate(0, 0.01);
  const Frame f1 = sim.Generate(1, 0.01);
  const std::size_t w = static_cast<std::size_t>(sensor.n_win_w);
  for (std::size_t i = 0; i + 8 * w < f0.grid.size(); ++i) ASSERT_EQ(f1.grid[i], f0.grid[i + 8 * w]) << i;
}

TEST(Scene, SameSeedSameFrames) {
  const SensorSetup sensor = DefaultSensor(0);
  SceneSimulator a(sensor, SceneSetup{}, 3);
  SceneSimulator b(sensor, SceneSetup{}, 3);
  EXPECT_EQ(a.Generate(0, 0.01).grid, b.Generate(0, 0.01).grid);
  SceneSetup other;
  other.seed = 2;
  SceneSimulator c(sensor, other, 3);
  EXPECT_NE(a.Generate(1, 0.01).grid, c.Generate(1, 0.01).grid);
}

// Each family's values stay in the range its INIT covers, and clip at full scale.
TEST(Scene, ValueRangesPerFamily) {
  SceneSetup bright;
  bright.brightness = 3.0;  // far past full scale: everything clips
  for (std::int32_t type : {0, 1, 2}) {
    const SensorSetup sensor = DefaultSensor(type);
    SceneSimulator sim(sensor, bright, 2);
    const Frame f = sim.Generate(0, 0.01);
    ASSERT_EQ(f.grid.size(), static_cast<std::size_t>(sensor.GridSize()));
    std::int64_t top = 0;
    for (std::int64_t v : f.grid) top = std::max(top, v);
    // Half a 64-pixel window of 16-bit codes; a 10-bit level; the green half of 4 x 64 12-bit
    // pixels.
    const std::int64_t full[3] = {32 * 65535, 1023, 4 * 64 / 2 * 4095};
    EXPECT_EQ(top, full[type]);
  }
}

// zHDR words: value in bits 0..23, noise count in 24..35, saturation count in 36..47. A bright
// scene saturates the long rows and leaves the short ones.
TEST(Scene, ZhdrPacking) {
  const SensorSetup sensor = DefaultSensor(0, true);
  EXPECT_EQ(sensor.n_win_h * sensor.n_win_w, 12);
  SceneSetup scene;
  scene.brightness = 2.0;
  scene.hdr_ratio = 8.0;
  SceneSimulator sim(sensor, scene, 2);
  const Frame f = sim.Generate(0, 0.01);
  const std::size_t w = static_cast<std::size_t>(sensor.n_win_w);
  std::int64_t long_saturated = 0, short_saturated = 0;
  for (std::size_t r = 0; r < static_cast<std::size_t>(sensor.StatRows()); ++r) {
    for (std::size_t c = 0; c < w; ++c) {
      const std::int64_t word = f.grid[r * w + c];
      EXPECT_LE(word & 0xFFFFFF, 32 * 65535);
      EXPECT_EQ(word >> 48, 0);
      (r % 2 == 0 ? long_saturated : short_saturated) += (word >> 36) & 0xFFF;
    }
  }
  EXPECT_GT(long_saturated, 0);
  EXPECT_EQ(short_saturated, 0);
}

TEST(SensorSetup, TimingAndRows) {
  const SensorSetup s0 = DefaultSensor(0);
  EXPECT_NEAR(s0.FramePeriod(), 0.0375, 1e-12);
  EXPECT_EQ(s0.StatRows(), 2400);
  EXPECT_EQ(s0.LinesPerRow(), 1);
  const SensorSetup s1 = DefaultSensor(1);
  EXPECT_NEAR(s1.FramePeriod(), 0.0375, 1e-12);
  EXPECT_EQ(s1.StatRows(), 900);
  const SensorSetup s2 = DefaultSensor(2);
  EXPECT_EQ(s2.StatRows(), 600);  // type 2 reads win_ht as the frame's rows
  EXPECT_EQ(s2.GridSize(), 4800);
}

}  // namespace
}  // namespace kestrel_host
