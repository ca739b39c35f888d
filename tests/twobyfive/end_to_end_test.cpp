// SPDX-License-Identifier: Apache-2.0
// The 2x5 pipeline through SendCmdFlk: simulated block statistics of a textured, noisy scene
// under mains lighting, frame after frame, against the sequential test's decision.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "decision/decision.h"
#include "kestrel/flicker.h"
#include "support.h"

namespace {

// Reproducible normal deviates on every platform (std::normal_distribution is not).
class Noise {
 public:
  explicit Noise(std::uint64_t seed) : state_(seed) {}
  double Uniform() {
    state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return (static_cast<double>(state_ >> 11) + 0.5) / 9007199254740992.0;
  }
  double Gauss() {
    const double u = Uniform();
    const double v = Uniform();
    return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * v);
  }

 private:
  std::uint64_t state_;
};

// A rolling-shutter sensor: 540 statistics rows of 4 lines x 100 pixels, 5 columns of windows,
// line time 1389 / 100 MHz = 13.89 us, a frame every 2250 lines (31.25 ms: 3.75 periods of
// 120 Hz banding and 3.125 of 100 Hz, so the bands move from frame to frame).
struct Sensor {
  static constexpr std::int32_t kRows = 540;
  static constexpr std::int32_t kColumns = 5;
  static constexpr std::int32_t kBlock = 4;
  static constexpr std::int32_t kWidth = 100;
  static constexpr std::int32_t kLineLength = 1389;
  static constexpr std::int32_t kFrameLines = 2250;
  static constexpr double kPclk = 100e6;
};

// The scene: per line and column a reflectance in 12-bit units (smooth shading, hard edges and
// fine texture, fixed over time); per frame the light 1 + depth cos(2 pi f t) integrated over
// each line's exposure, and relative noise on every statistic.
class Scene {
 public:
  Scene(double depth, double banding_hz, double exposure_s, double noise, std::uint64_t seed)
      : depth_(depth), banding_hz_(banding_hz), exposure_(exposure_s), noise_(noise), rng_(seed) {
    const std::int32_t lines = Sensor::kRows * Sensor::kBlock;
    std::vector<double> grain(static_cast<std::size_t>(lines) * Sensor::kColumns);
    for (double& g : grain) g = rng_.Gauss();
    reflectance_.resize(grain.size());
    for (std::int32_t l = 0; l < lines; ++l) {
      for (std::int32_t c = 0; c < Sensor::kColumns; ++c) {
        double texture = 0;
        for (std::int32_t k = -3; k <= 3; ++k) {
          const std::int32_t at = std::min(std::max(l + k, 0), lines - 1);
          texture += grain[at * Sensor::kColumns + c];
        }
        reflectance_[l * Sensor::kColumns + c] = 1400 + 500 * std::sin(2 * M_PI * l / 700.0 + c) +
                                                 250 * ((l / 173 + c) % 2) + 60 * texture;
      }
    }
  }

  std::vector<std::int32_t> Frame(std::int32_t index) {
    const double line_time = Sensor::kLineLength / Sensor::kPclk;
    const double w = 2 * M_PI * banding_hz_;
    const double full = 4095.0 * Sensor::kBlock * Sensor::kWidth;
    std::vector<std::int32_t> grid(Sensor::kRows * Sensor::kColumns);
    for (std::int32_t r = 0; r < Sensor::kRows; ++r) {
      for (std::int32_t c = 0; c < Sensor::kColumns; ++c) {
        double sum = 0;
        for (std::int32_t b = 0; b < Sensor::kBlock; ++b) {
          const std::int32_t l = r * Sensor::kBlock + b;
          const double end = (static_cast<double>(index) * Sensor::kFrameLines + l) * line_time;
          const double light =
              1 + depth_ * (std::sin(w * end + 0.3) - std::sin(w * (end - exposure_) + 0.3)) /
                      (w * exposure_);
          sum += reflectance_[l * Sensor::kColumns + c] * light * Sensor::kWidth;
        }
        sum *= 1 + noise_ * rng_.Gauss();
        grid[r * Sensor::kColumns + c] =
            static_cast<std::int32_t>(std::lround(std::min(sum, full)));
      }
    }
    return grid;
  }

 private:
  double depth_, banding_hz_, exposure_, noise_;
  Noise rng_;
  std::vector<double> reflectance_;
};

class TwoByFiveEndToEnd : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    FlkInitPara init{FLK_SENSOR_2X5, Sensor::kLineLength, 2160, Sensor::kWidth,
                     Sensor::kPclk,  Sensor::kBlock,      0};
    testing::internal::CaptureStdout();
    SendCmdFlk(CMD_INIT, &init, nullptr);
    testing::internal::GetCapturedStdout();
  }
  void TearDown() override {
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    LibraryTest::TearDown();
  }

  // Sets the state, forgets the queue, then runs `frames` DETECTs; returns the result codes.
  std::vector<std::int32_t> Run(Scene& scene, EvTable state, std::int32_t frames) {
    SendCmdFlk(CMD_SET_STATE, &state, nullptr);
    SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
    std::vector<std::int32_t> prev = scene.Frame(0);
    std::vector<std::int32_t> results;
    for (std::int32_t f = 1; f <= frames; ++f) {
      std::vector<std::int32_t> cur = scene.Frame(f);
      FlkDetectPara detect{};
      detect.type = FLK_SENSOR_2X5;
      detect.prev_stats = prev.data();
      detect.cur_stats = cur.data();
      detect.n_win_h = 3;
      detect.n_win_w = Sensor::kColumns;
      detect.win_wd = Sensor::kWidth;
      detect.win_ht = Sensor::kRows;  // the frame's total rows
      std::int32_t result = -1;
      SendCmdFlk(CMD_DETECT, &detect, &result);
      results.push_back(result);
      prev.swap(cur);
    }
    return results;
  }
};

struct Lighting {
  double depth, noise;
};

class TwoByFiveBanding : public TwoByFiveEndToEnd, public testing::WithParamInterface<Lighting> {};

// 10 ms exposures cancel 100 Hz banding, not 120 Hz: the 50 Hz state must give way to 3 as soon
// as the test may decide (third frame) and keep reporting it until the host switches.
TEST_P(TwoByFiveBanding, MovingBandingAt120HzSwitchesThe50HzState) {
  kestrel_test::LogCapture log;
  Scene scene(GetParam().depth, 120.0, 0.010, GetParam().noise, 2024);
  const auto results = Run(scene, EV_TABLE_50HZ, 10);
  EXPECT_EQ(results[0], 2);
  EXPECT_EQ(results[1], 2);
  for (std::size_t f = 2; f < results.size(); ++f) EXPECT_EQ(results[f], 3) << "frame " << f + 1;
  for (const auto& line : log.Lines()) EXPECT_EQ(line.find("refused"), std::string::npos) << line;
}

INSTANTIATE_TEST_SUITE_P(DepthAndNoise, TwoByFiveBanding,
                         testing::Values(Lighting{0.3, 0.002}, Lighting{0.1, 0.005},
                                         Lighting{0.5, 0.01}));

TEST_F(TwoByFiveEndToEnd, SteadyLightNeverSwitches) {
  for (const double noise : {0.001, 0.005, 0.01}) {
    Scene scene(0.0, 120.0, 0.010, noise, 7);
    for (const std::int32_t result : Run(scene, EV_TABLE_50HZ, 40)) {
      ASSERT_EQ(result, 2) << noise;
    }
  }
}

// 100 Hz banding under 10 ms exposures is cancelled: it is the current state's light.
TEST_F(TwoByFiveEndToEnd, CancelledBandingOfTheCurrentStateNeverSwitches) {
  Scene scene(0.5, 100.0, 0.010, 0.003, 99);
  for (const std::int32_t result : Run(scene, EV_TABLE_50HZ, 30)) ASSERT_EQ(result, 2);
}

// In the 60 Hz state (exposures of 1/120 s) 100 Hz banding is the other light.
TEST_F(TwoByFiveEndToEnd, MovingBandingAt100HzSwitchesThe60HzState) {
  Scene scene(0.3, 100.0, 1.0 / 120.0, 0.003, 5);
  const auto results = Run(scene, EV_TABLE_60HZ, 10);
  EXPECT_EQ(results[0], 3);
  EXPECT_EQ(results[1], 3);
  for (std::size_t f = 2; f < results.size(); ++f) EXPECT_EQ(results[f], 2) << "frame " << f + 1;
}

}  // namespace
