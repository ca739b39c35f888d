// SPDX-License-Identifier: Apache-2.0
// Standard detection driver: geometry refusals, the line dump, the zHDR switch, the validity gate,
// and whole frames of moving 120 Hz banding through SendCmdFlk.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LogCapture;

// Sensor timing of the INIT: 1500 lines of 2000 clocks at 96 MHz (20.8 us a line), statistics
// windows 4000 pixels wide. Tables of 500 columns.
constexpr std::int32_t kLineLength = 2000;
constexpr std::int32_t kColumnLength = 1500;
constexpr std::int32_t kWindowWidth = 4000;
constexpr double kPclk = 96e6;

void Init(std::int32_t column_length = kColumnLength) {
  FlkInitPara init{FLK_SENSOR_STANDARD, kLineLength, column_length, kWindowWidth, kPclk, 0, 0};
  ::testing::internal::CaptureStdout();
  SendCmdFlk(CMD_INIT, &init, nullptr);
  ::testing::internal::GetCapturedStdout();
}

void SetState(std::int32_t state) {
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
}

std::int32_t Detect(std::vector<std::int64_t>& prev, std::vector<std::int64_t>& cur,
                    std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_ht,
                    std::int32_t win_wd = 1000) {
  FlkDetectPara para{};
  para.type = FLK_SENSOR_STANDARD;
  para.prev_stats = prev.data();
  para.cur_stats = cur.data();
  para.n_win_h = n_win_h;
  para.n_win_w = n_win_w;
  para.win_wd = win_wd;
  para.win_ht = win_ht;
  std::int32_t result = -1;
  SendCmdFlk(CMD_DETECT, &para, &result);
  return result;
}

class DetectTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    Init();
    SetState(0);
  }
  void TearDown() override {
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    LibraryTest::TearDown();
  }
};

// ---- Refusals: one line naming the limit, the current result, nothing touched ----

struct RefusalCase {
  const char* name;
  std::int32_t n_win_h, n_win_w, win_ht;
  std::uint8_t zhdr;
  const char* line;
};

class DetectRefusalTest : public DetectTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(DetectRefusalTest, RefusesBeforeAnyWork) {
  const RefusalCase& c = GetParam();
  is_zhdr = c.zhdr;
  const std::size_t words = 13000;
  const std::int64_t packed = (std::int64_t{5} << 36) | 1234;
  std::vector<std::int64_t> prev(words, packed);
  std::vector<std::int64_t> cur(words, packed);
  line_prev_working_memory[0] = -77;
  g_queueHead = 4;
  g_queueCount = 4;
  LogCapture log;
  EXPECT_EQ(detectFlicker_SW(prev.data(), cur.data(), c.n_win_h, c.n_win_w, 1000, c.win_ht, 0, {},
                             {}, {}, nullptr),
            2);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{c.line});
  EXPECT_EQ(prev[0], packed);  // not even unpacked
  EXPECT_EQ(cur[words - 1], packed);
  EXPECT_EQ(line_prev_working_memory[0], -77);
  EXPECT_EQ(g_queueHead, 4);
  EXPECT_EQ(g_queueCount, 4);
}

INSTANTIATE_TEST_SUITE_P(
    Limits, DetectRefusalTest,
    ::testing::Values(
        RefusalCase{"no_band", 0, 4, 250, 0,
                    "[detectFlicker_SW] refused: n_win_h 0 outside 1..10, result 2"},
        RefusalCase{"eleven_bands", 11, 1, 100, 0,
                    "[detectFlicker_SW] refused: n_win_h 11 outside 1..10, result 2"},
        RefusalCase{"no_column", 1, 0, 250, 0,
                    "[detectFlicker_SW] refused: n_win_w 0 outside 1..10, result 2"},
        RefusalCase{"eleven_columns", 1, 11, 100, 0,
                    "[detectFlicker_SW] refused: n_win_w 11 outside 1..10, result 2"},
        RefusalCase{"band_below_mirrors", 6, 4, 52, 0,
                    "[detectFlicker_SW] refused: win_ht 52 outside 53..2000, result 2"},
        RefusalCase{"band_above_window_buffer", 1, 4, 2001, 0,
                    "[detectFlicker_SW] refused: win_ht 2001 outside 53..2000, result 2"},
        RefusalCase{"rows_above_line_vectors", 4, 1, 1501, 0,
                    "[detectFlicker_SW] refused: n_win_h x win_ht = 6004 above 6000 rows, "
                    "result 2"},
        RefusalCase{"band_above_column_buffer", 1, 7, 1715, 0,
                    "[detectFlicker_SW] refused: win_ht x n_win_w = 12005 above 12000 values, "
                    "result 2"},
        // 4 windows of 504 rows: 4 x 126 = 504 log-ratio samples against 500 table columns.
        RefusalCase{"longer_than_table_row", 4, 1, 504, 0,
                    "[detectFlicker_SW] refused: 504 log-ratio samples above the table row of "
                    "500, result 2"},
        RefusalCase{"zhdr_counters", 4, 4, 100, 1,
                    "[detectFlicker_SW] refused: zHDR windows 4 x 4 above 12, result 2"},
        // Odd bands: zHDR windows of 100 rows, so 404 rows make five window rows.
        RefusalCase{"zhdr_odd_band_spills", 4, 3, 101, 1,
                    "[detectFlicker_SW] refused: zHDR windows 5 x 3 above 12, result 2"}),
    [](const ::testing::TestParamInfo<RefusalCase>& info) { return info.param.name; });

TEST_F(DetectTest, RefusesWithoutTablesOrGrids) {
  std::vector<std::int64_t> grid(1000, 1000000);
  LogCapture log;
  EXPECT_EQ(detectFlicker_SW(nullptr, grid.data(), 1, 1, 1000, 100, 0, {}, {}, {}, nullptr), 2);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  EXPECT_EQ(detectFlicker_SW(grid.data(), grid.data(), 1, 1, 1000, 100, 0, {}, {}, {}, nullptr), 2);
  EXPECT_TRUE(log.Contains("[detectFlicker_SW] refused: missing statistics grid, result 2"));
  EXPECT_TRUE(log.Contains("[detectFlicker_SW] refused: no tables (INIT type 0 first), result 2"));
}

// The largest accepted geometries run (tables of 1500 columns for 6000 lines).
TEST_F(DetectTest, AcceptsTheLimits) {
  Init(6000);
  SetState(0);
  struct Geometry {
    std::int32_t n_win_h, n_win_w, win_ht;
  };
  for (const Geometry& g :
       {Geometry{1, 2, 53}, Geometry{10, 2, 600}, Geometry{3, 6, 2000}, Geometry{1, 10, 1200}}) {
    std::vector<std::int64_t> prev(static_cast<std::size_t>(g.n_win_h * g.n_win_w * g.win_ht),
                                   1000000);
    std::vector<std::int64_t> cur = prev;
    LogCapture log;
    EXPECT_EQ(Detect(prev, cur, g.n_win_h, g.n_win_w, g.win_ht), 2);
    for (const std::string& line : log.Lines()) {
      EXPECT_EQ(line.find("refused"), std::string::npos) << line;
    }
  }
}

// ---- Line dump ----

TEST_F(DetectTest, LineDumpLabelsRowsAndClosesWithMinusOnes) {
  g_logLineData = 1;
  std::vector<std::int64_t> prev;
  std::vector<std::int64_t> cur;
  for (int r = 0; r < 55; ++r) {
    prev.insert(prev.end(), {1000 + r, 1000 + r});
    cur.insert(cur.end(), {2000 + r, 2000 + r});
  }
  LogCapture log;
  Detect(prev, cur, 1, 2, 55);
  std::vector<std::string> dump;
  for (const std::string& line : log.Lines()) {
    if (line.rfind("Line[", 0) == 0) dump.push_back(line);
  }
  ASSERT_EQ(dump.size(), 6u);
  EXPECT_EQ(dump[0],
            "Line[    0]:  1000,  2000,  1001,  2001,  1002,  2002,  1003,  2003,  1004,  2004,  "
            "1005,  2005,  1006,  2006,  1007,  2007,  1008,  2008,  1009,  2009,\n");
  EXPECT_EQ(dump[4].substr(0, 25), "Line[   40]:  1040,  2040");
  EXPECT_EQ(dump[5],
            "Line[   50]:  1050,  2050,  1051,  2051,  1052,  2052,  1053,  2053,  1054,  2054, "
            "   -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,\n");
}

TEST_F(DetectTest, LineDumpOfWholeRowsEndsWithAnEmptyRow) {
  g_logLineData = 1;
  std::vector<std::int64_t> prev(60, 1000);
  std::vector<std::int64_t> cur(60, 1000);
  LogCapture log;
  Detect(prev, cur, 1, 1, 60);
  EXPECT_TRUE(log.Contains(
      "Line[   60]:    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1, "
      "   -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,    -1,\n"));
}

// ---- Stages and the validity gate ----

TEST_F(DetectTest, UnpacksAlwaysAndSelectsByZhdrOnlyWhenSet) {
  const std::int64_t packed = (std::int64_t{3} << 36) | (std::int64_t{2} << 24) | 1000000;
  std::vector<std::int64_t> prev(2 * 100, packed);
  std::vector<std::int64_t> cur(2 * 100, packed);
  ::testing::internal::CaptureStdout();
  Detect(prev, cur, 1, 2, 100);
  std::fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(prev[5], 1000000);

  is_zhdr = 1;
  std::fill(prev.begin(), prev.end(), packed);
  std::fill(cur.begin(), cur.end(), packed);
  ::testing::internal::CaptureStdout();
  Detect(prev, cur, 1, 2, 100);
  std::fflush(stdout);
  // Counts 50 x 3 and 50 x 2 per exposure against 100 x 1000 / 80 = 1250: all four flagged,
  // equally quiet and bright, so candidate 0.
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "zHDR_vector_selection: 0 \n");
  EXPECT_EQ(cur[199], 1000000);
  EXPECT_EQ(ZHDR_LE_SAT_CURR[1], 150);
}

TEST_F(DetectTest, UnstableExposureIsAnInvalidFrame) {
  g_logFlow = 1;
  std::vector<std::int64_t> prev(2 * 100, 1000000);
  std::vector<std::int64_t> cur(2 * 100, 1500000);
  LogCapture log;
  EXPECT_EQ(Detect(prev, cur, 1, 2, 100), 2);
  EXPECT_TRUE(log.Contains("frame AE unstable\n"));
  EXPECT_TRUE(log.Contains("Freq_out = 0, 0, 0, 0, 0, 0, 0, 0, 0\n"));
  EXPECT_TRUE(log.Contains("Seq_test: invalid mean_freq:0, is_valid:0\n"));
  EXPECT_EQ(g_queueCount, 0);
}

// ---- End to end: rolling-shutter frames under flickering light ----

// A scene read out line by line: row r of frame k is read at k x frame period + r x line time and
// integrates 1 + depth x cos(2 pi f t) over the exposure before it. The content has edges, slow
// shading and per-frame noise.
struct Banding {
  double depth = 0.3;              // light modulation depth (0: steady light)
  double band_hz = 120.0;          // 60 Hz mains
  double exposure = 0.01;          // s; the 50 Hz controller's exposure cancels 100 Hz only
  double frame_period = 1.0 / 27;  // not a whole number of 1/120 s: the bands move
  double noise = 0.002;            // relative, per statistic
  bool zhdr = false;               // odd rows: a four times shorter exposure, packed words
};

constexpr int kBands = 6;
constexpr int kRows = 250;
constexpr double kLineTime = kLineLength / kPclk;

class Scene {
 public:
  Scene(const Banding& b, int columns) : b_(b), columns_(columns) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    texture_.resize(static_cast<std::size_t>(kBands * kRows * columns));
    for (int c = 0; c < columns; ++c) {
      double level = 1.0;
      for (int r = 0; r < kBands * kRows; ++r) {
        if (u(rng) < 0.01) level = 0.6 + 0.8 * u(rng);
        const double shading = 0.05 * std::sin(2 * std::numbers::pi * r / (300.0 + 70 * c));
        texture_[r * columns + c] = (0.5 + 0.2 * c) * (level + shading);
      }
    }
  }

  std::vector<std::int64_t> Frame(int k) const {
    std::mt19937 rng(1000 + k);
    std::normal_distribution<double> n(0.0, 1.0);
    std::vector<std::int64_t> grid(texture_.size());
    for (int r = 0; r < kBands * kRows; ++r) {
      const double t = k * b_.frame_period + r * kLineTime;
      const bool short_row = b_.zhdr && r % 2 == 1;
      const double exposure = short_row ? b_.exposure / 4 : b_.exposure;
      const double light = Light(t, exposure) / (short_row ? 4 : 1);
      for (int c = 0; c < columns_; ++c) {
        const double v = 2.5e6 * texture_[r * columns_ + c] * light * (1 + b_.noise * n(rng));
        std::int64_t word = std::llround(v);
        if (b_.zhdr) word |= std::int64_t{r % 7 == 0} << 24;  // a few noisy rows
        grid[r * columns_ + c] = word;
      }
    }
    return grid;
  }

 private:
  // Mean light over [t - exposure, t].
  double Light(double t, double exposure) const {
    const double w = 2 * std::numbers::pi * b_.band_hz;
    return 1 + b_.depth / (w * exposure) * (std::sin(w * t) - std::sin(w * (t - exposure)));
  }

  Banding b_;
  int columns_;
  std::vector<double> texture_;
};

// Runs `frames` detections from frame 1 on; returns the results.
std::vector<std::int32_t> RunFrames(const Banding& b, int frames, int columns = 4) {
  const Scene scene(b, columns);
  std::vector<std::int32_t> results;
  std::vector<std::int64_t> prev = scene.Frame(0);
  for (int k = 1; k <= frames; ++k) {
    std::vector<std::int64_t> cur = scene.Frame(k);
    std::vector<std::int64_t> next_prev = cur;  // DETECT unpacks the grids in place
    results.push_back(Detect(prev, cur, kBands, columns, kRows));
    prev = next_prev;
  }
  return results;
}

struct EndToEndCase {
  const char* name;
  Banding banding;
  int columns;
  std::int32_t state;  // SET_STATE before the first frame
};

class EndToEndTest : public DetectTest, public ::testing::WithParamInterface<EndToEndCase> {};

// Three valid frames are the fewest the sequential test decides on; bands of the other mains
// frequency that move between frames make the third frame report it, and the switch repeats until
// the host confirms it.
TEST_P(EndToEndTest, MovingBandsSwitchOnTheThirdFrame) {
  const EndToEndCase& c = GetParam();
  is_zhdr = c.banding.zhdr ? 1 : 0;
  SetState(c.state);
  const std::vector<std::int32_t> results = RunFrames(c.banding, 6, c.columns);
  const std::vector<std::int32_t> expected = c.state == 0
                                                 ? std::vector<std::int32_t>{2, 2, 3, 3, 3, 3}
                                                 : std::vector<std::int32_t>{3, 3, 2, 2, 2, 2};
  EXPECT_EQ(results, expected);
  EXPECT_EQ(g_queueCount, 6);  // every frame was valid
}

Banding WithDepth(double depth) {
  Banding b;
  b.depth = depth;
  return b;
}
Banding WithNoise(double noise) {
  Banding b;
  b.noise = noise;
  return b;
}
Banding Zhdr(double depth) {
  Banding b;
  b.depth = depth;
  b.zhdr = true;
  return b;
}
// 50 Hz mains seen by a controller in the 60 Hz state (exposure 1/120 s cancels 120 Hz only).
Banding Mains50(double depth) {
  Banding b;
  b.depth = depth;
  b.band_hz = 100.0;
  b.exposure = 1.0 / 120;
  return b;
}

INSTANTIATE_TEST_SUITE_P(
    Scenes, EndToEndTest,
    ::testing::Values(EndToEndCase{"depth_10_percent", WithDepth(0.1), 4, 0},
                      EndToEndCase{"depth_30_percent", WithDepth(0.3), 4, 0},
                      EndToEndCase{"depth_100_percent", WithDepth(1.0), 4, 0},
                      EndToEndCase{"noise_1_percent", WithNoise(0.01), 4, 0},
                      EndToEndCase{"zhdr_depth_10_percent", Zhdr(0.1), 2, 0},
                      EndToEndCase{"mains_50_in_60_state", Mains50(0.3), 4, 1}),
    [](const ::testing::TestParamInfo<EndToEndCase>& info) { return info.param.name; });

struct SteadyCase {
  const char* name;
  Banding banding;
  int columns;
};

class SteadyTest : public DetectTest, public ::testing::WithParamInterface<SteadyCase> {};

TEST_P(SteadyTest, NeverSwitches) {
  const SteadyCase& c = GetParam();
  is_zhdr = c.banding.zhdr ? 1 : 0;
  for (std::int32_t result : RunFrames(c.banding, 20, c.columns)) EXPECT_EQ(result, 2);
  EXPECT_EQ(g_queueCount, 20);
}

Banding AtFrameRate(double fps) {
  Banding b;
  b.frame_period = 1.0 / fps;
  return b;
}

INSTANTIATE_TEST_SUITE_P(
    Scenes, SteadyTest,
    ::testing::Values(SteadyCase{"steady_light", WithDepth(0.0), 4},
                      SteadyCase{"steady_light_zhdr", Zhdr(0.0), 2},
                      // 30 and 24 frames a second are 4 and 5 periods of 120 Hz: the bands stand
                      // still and cancel in the ratio of the frames.
                      SteadyCase{"bands_standing_at_30_fps", AtFrameRate(30), 4},
                      SteadyCase{"bands_standing_at_24_fps", AtFrameRate(24), 4}),
    [](const ::testing::TestParamInfo<SteadyCase>& info) { return info.param.name; });

// The host's sequence: the library reports 60 Hz, the host confirms it with SET_STATE 1 and
// RESET_QUEUE and moves its exposure to a multiple of 1/120 s, which cancels the banding; the
// library then keeps reporting 60 Hz.
TEST_F(DetectTest, HostConfirmsTheSwitchAndTheNewStateHolds) {
  Banding b = WithDepth(0.3);
  ASSERT_EQ(RunFrames(b, 3).back(), 3);
  SetState(1);
  b.exposure = 1.0 / 120;
  for (std::int32_t result : RunFrames(b, 10)) EXPECT_EQ(result, 3);
}

}  // namespace
