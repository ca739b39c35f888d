// SPDX-License-Identifier: Apache-2.0
// Standard tables: widths, value range, trigonometric and log table contents, INIT refusals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "interface/interface.h"
#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LogCapture;
using testing::ElementsAre;

class TablesTest : public kestrel_test::LibraryTest {
 protected:
  void TearDown() override {
    flicker_uninit();
    kestrel_test::LibraryTest::TearDown();
  }
};

// Runs flicker_init and returns what it printed on standard output.
std::string Init(std::int32_t line_length, std::int32_t column_length, std::int32_t window_width,
                 double pclk) {
  testing::internal::CaptureStdout();
  flicker_init(line_length, column_length, window_width, pclk);
  return testing::internal::GetCapturedStdout();
}

std::int64_t Sum(const std::int32_t* t, std::int32_t n) {
  return std::accumulate(t, t + n, std::int64_t{0});
}

TEST(TableWidth, FourLineSamplesRoundedUpToAMultipleOf500) {
  const std::int32_t cases[][2] = {{2000, 500},  {2001, 1000}, {0, 500},      {-40, 500},
                                   {4001, 1500}, {8004, 2500}, {65536, 16500}};
  for (const auto& [column_length, expected] : cases) {
    std::int32_t width = -1;
    std::int32_t count = -1;
    flk_getTablSize(123, column_length, &width, &count);
    EXPECT_EQ(width, expected) << column_length;
    EXPECT_EQ(count, 9);
  }
}

struct RangeCase {
  std::int32_t window_width, value_max, entries;  // entries: N, as printed
  std::int64_t table_sum;                         // sum of the N log-table entries
  std::int32_t last_entry;
};
class LogTableTest : public TablesTest, public testing::WithParamInterface<RangeCase> {};

TEST_P(LogTableTest, RangeShiftValueMaxAndContents) {
  const RangeCase& c = GetParam();
  const std::string out = Init(4000, 2000, c.window_width, 240e6);
  EXPECT_EQ(g_valuMax, c.value_max);
  EXPECT_THAT(out, testing::EndsWith("\nsize: " + std::to_string(c.entries) + "\n"));
  EXPECT_EQ(g_flkCompTab[0], 0);
  EXPECT_EQ(Sum(g_flkCompTab, c.entries), c.table_sum);
  EXPECT_EQ(g_flkCompTab[c.entries - 1], c.last_entry);
}

INSTANTIATE_TEST_SUITE_P(
    WindowWidths, LogTableTest,
    testing::Values(RangeCase{511, 16711425, 4081, 237640653, 65520},  // s = 0, half 255
                    RangeCase{512, 8388480, 2049, 113736449, 62804},   // s = 1, half 256
                    RangeCase{4096, 8388480, 2049, 113736449, 62804},  // s = 4
                    // Knots 3 and 6 fall exactly on entries 1538 and 4614: the lower segment.
                    RangeCase{18676, 38247864, 9339, 574323335, 68782},
                    RangeCase{65535, 134211584, 32768, 2177278144, 73727},
                    RangeCase{0, 0, 2, 34858, 34858}));

TEST_F(TablesTest, LogTableFollowsEachSegmentOfTheCompandingCurve) {
  Init(4000, 2000, 511, 240e6);
  // Entry 1: y = 512 x 4096 / 5140 = 408, log10(409) x 9070.94 = 23690.7. Entries 319..321
  // straddle the fourth knot (t4 = 4063170), 4080 lies past the last (x > t7).
  const std::int32_t index[] = {1, 2, 3, 319, 320, 321, 1000, 4080};
  const std::int32_t expected[] = {23691, 26417, 28012, 46393, 46405, 46433, 54672, 65520};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(g_flkCompTab[index[i]], expected[i]) << index[i];
}

struct TrigCase {
  std::int32_t line_length, column_length;
  double pclk;
  std::int32_t width;
  std::int64_t cos_sum, sin_sum;
  std::int32_t cos100_1, sin100_1, sin100_4;  // row 3 (100 Hz), samples 1 and 4
  std::int32_t cos170_last, sin170_last;      // row 8, sample W - 1
};
class TrigTableTest : public TablesTest, public testing::WithParamInterface<TrigCase> {};

TEST_P(TrigTableTest, EqualsReferenceEntryForEntry) {
  const TrigCase& c = GetParam();
  Init(c.line_length, c.column_length, 512, c.pclk);
  const std::int32_t w = c.width;
  ASSERT_EQ(g_flkTabW, w);
  EXPECT_EQ(Sum(g_flkTab1, 9 * w), c.cos_sum);
  EXPECT_EQ(Sum(g_flkTab2, 9 * w), c.sin_sum);
  EXPECT_EQ(g_flkTab1[3 * w + 1], c.cos100_1);
  EXPECT_EQ(g_flkTab2[3 * w + 1], c.sin100_1);
  EXPECT_EQ(g_flkTab2[3 * w + 4], c.sin100_4);
  EXPECT_EQ(g_flkTab1[9 * w - 1], c.cos170_last);
  EXPECT_EQ(g_flkTab2[9 * w - 1], c.sin170_last);
  for (int k = 0; k < 9; ++k) {
    EXPECT_EQ(g_flkTab1[k * w], 255) << k;
    EXPECT_EQ(g_flkTab2[k * w], 0) << k;
  }
}

// 100 Hz at 4 lines of 4000 clocks at 240 MHz: 255 sin(0.0418879) = 10.67, rounded to 11.
INSTANTIATE_TEST_SUITE_P(
    Geometries, TrigTableTest,
    testing::Values(TrigCase{4000, 2000, 240e6, 500, 8050, 58099, 255, 11, 43, -143, -211},
                    TrigCase{3200, 7999, 333.3e6, 2000, 14981, 70634, 255, 6, 25, 242, 80}));

TEST_F(TablesTest, CalFlickerTableFillsCallerBuffersLikeInit) {
  Init(5000, 2001, 700, 480e6);
  std::vector<std::int32_t> cos_t(9 * 1000), sin_t(9 * 1000), log_t((g_valuMax + 8192) >> 12);
  testing::internal::CaptureStdout();
  // Argument order differs from flicker_init: pclk third, window width fourth.
  calFlickerTable(5000, 2001, 480e6, 700, cos_t.data(), sin_t.data(), log_t.data());
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(std::equal(cos_t.begin(), cos_t.end(), g_flkTab1));
  EXPECT_TRUE(std::equal(sin_t.begin(), sin_t.end(), g_flkTab2));
  EXPECT_TRUE(std::equal(log_t.begin(), log_t.end(), g_flkCompTab));
}

TEST_F(TablesTest, TimingLineAlwaysAndTheGeometryLineOnlyWithFlowLogging) {
  LogCapture log;
  EXPECT_THAT(Init(4000, 2000, 512, 240e6),
              testing::MatchesRegex("\ntime: [0-9]+\\.[0-9]{6}\nsize: 2049\n"));
  EXPECT_TRUE(log.Lines().empty());
  g_logFlow = 1;
  Init(4000, 2000, 512, 240000000.9);
  Init(4000, 2000, 512, 2400000000.0);  // beyond 32 bits: shown as the lowest 32-bit value
  EXPECT_THAT(log.Lines(), ElementsAre("flicker_init 4000 columnLen=2000 winW = 512 240000000",
                                       "flicker_init 4000 columnLen=2000 winW = 512 -2147483648"));
}

TEST_F(TablesTest, InitRebuildsAndUninitTwiceThroughTheCommandEntry) {
  FlkInitPara para{FLK_SENSOR_STANDARD, 4000, 2000, 512, 240e6, 0, 0};
  Init(5000, 2001, 511, 480e6);
  testing::internal::CaptureStdout();
  SendCmdFlk(CMD_INIT, &para, nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::EndsWith("\nsize: 2049\n"));
  EXPECT_EQ(g_flkTabW, 500);
  EXPECT_EQ(g_flkTab1[3 * 500 + 4], 251);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  EXPECT_TRUE(g_flkTab1 == nullptr && g_flkTab2 == nullptr && g_flkCompTab == nullptr);
  // The scalars survive an UNINIT.
  EXPECT_EQ(std::pair(g_flkTabW, g_valuMax), std::pair(500, 8388480));
}

TEST_F(TablesTest, AbsurdGeometryFreesTheOldTablesAndBuildsNone) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    std::int32_t column_length, window_width;
    double pclk;
  };
  LogCapture log;
  for (const Case& c : {Case{-1, 512, 240e6}, Case{65537, 512, 240e6}, Case{2000, -2, 240e6},
                        Case{2000, 65536, 240e6}, Case{2000, 512, 0.5}, Case{2000, 512, nan}}) {
    Init(4000, 2000, 512, 240e6);
    EXPECT_EQ(Init(4000, c.column_length, c.window_width, c.pclk), "");
    EXPECT_TRUE(g_flkTab1 == nullptr && g_flkTab2 == nullptr && g_flkCompTab == nullptr);
    EXPECT_EQ(std::pair(g_flkTabW, g_valuMax), std::pair(0, 0));
  }
  EXPECT_THAT(log.Lines(),
              ElementsAre("[flicker_init] refused: column_length -1 outside 0..65536",
                          "[flicker_init] refused: column_length 65537 outside 0..65536",
                          "[flicker_init] refused: window_width -2 outside 0..65535",
                          "[flicker_init] refused: window_width 65536 outside 0..65535",
                          "[flicker_init] refused: pclk 0.500000 below 1 Hz or not finite",
                          "[flicker_init] refused: pclk nan below 1 Hz or not finite"));
}

}  // namespace
