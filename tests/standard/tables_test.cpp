// SPDX-License-Identifier: Apache-2.0
// Standard tables: widths, value range, trigonometric and log table contents, INIT refusals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <tuple>
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
  std::int32_t width = -1;
  std::int32_t count = -1;
  for (const auto& [column_length, expected] :
       {std::pair{2000, 500}, {2001, 1000}, {0, 500}, {-40, 500}, {4001, 1500}, {65536, 16500}}) {
    flk_getTablSize(123, column_length, &width, &count);
    EXPECT_EQ(std::pair(width, count), std::pair(expected, 9)) << column_length;
  }
}

TEST_F(TablesTest, RangeShiftValueMaxAndLogTable) {
  struct Case {
    std::int32_t window_width, value_max, entries;  // entries: N, as printed
    std::int64_t sum;                               // of the N log-table entries
    std::int32_t last;
  };
  for (const Case& c :
       {Case{511, 16711425, 4081, 237640653, 65520},  // s = 0, half 255
        Case{512, 8388480, 2049, 113736449, 62804},   // s = 1, half 256
        Case{4096, 8388480, 2049, 113736449, 62804},  // s = 4
        // Knots 3 and 6 fall exactly on entries 1538 and 4614: the lower segment.
        Case{18676, 38247864, 9339, 574323335, 68782},
        Case{65535, 134211584, 32768, 2177278144, 73727}, Case{0, 0, 2, 34858, 34858}}) {
    const std::string out = Init(4000, 2000, c.window_width, 240e6);
    EXPECT_THAT(out, testing::EndsWith("\nsize: " + std::to_string(c.entries) + "\n"));
    EXPECT_EQ((std::vector<std::int64_t>{g_valuMax, g_flkCompTab[0], Sum(g_flkCompTab, c.entries),
                                         g_flkCompTab[c.entries - 1]}),
              (std::vector<std::int64_t>{c.value_max, 0, c.sum, c.last}))
        << c.window_width;
  }
  // Entry 1: y = 512 x 4096 / 5140 = 408, log10(409) x 9070.94 = 23690.7. Entries 319..321
  // straddle the fourth knot (t4 = 4063170), 4080 lies past the last (x > t7).
  Init(4000, 2000, 511, 240e6);
  const std::int32_t index[] = {1, 2, 3, 319, 320, 321, 1000, 4080};
  const std::int32_t expected[] = {23691, 26417, 28012, 46393, 46405, 46433, 54672, 65520};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(g_flkCompTab[index[i]], expected[i]) << index[i];
}

TEST_F(TablesTest, TrigonometricTablesEqualTheReferenceEntryForEntry) {
  struct Case {
    std::int32_t line_length, column_length;
    double pclk;
    std::int32_t w;
    std::vector<std::int64_t> expected;  // sums of both tables; 100 Hz (row 3) cos and sin at
                                         // sample 1 and sin at 4; 170 Hz (row 8) at sample W - 1
  };
  // 100 Hz at 4 lines of 4000 clocks at 240 MHz: 255 sin(0.0418879) = 10.67, rounded to 11.
  for (const Case& c : {Case{4000, 2000, 240e6, 500, {8050, 58099, 255, 11, 43, -143, -211}},
                        Case{3200, 7999, 333.3e6, 2000, {14981, 70634, 255, 6, 25, 242, 80}}}) {
    Init(c.line_length, c.column_length, 512, c.pclk);
    const std::int32_t w = c.w;
    ASSERT_EQ(g_flkTabW, w);
    EXPECT_EQ(
        (std::vector<std::int64_t>{Sum(g_flkTab1, 9 * w), Sum(g_flkTab2, 9 * w),
                                   g_flkTab1[3 * w + 1], g_flkTab2[3 * w + 1], g_flkTab2[3 * w + 4],
                                   g_flkTab1[9 * w - 1], g_flkTab2[9 * w - 1]}),
        c.expected);
    for (int k = 0; k < 9; ++k) EXPECT_TRUE(g_flkTab1[k * w] == 255 && g_flkTab2[k * w] == 0) << k;
  }
  // calFlickerTable fills the caller's buffers alike; pclk comes third, the window width fourth.
  std::vector<std::int32_t> cos_t(9 * 2000), sin_t(9 * 2000), log_t((g_valuMax + 8192) >> 12);
  testing::internal::CaptureStdout();
  calFlickerTable(3200, 7999, 333.3e6, 512, cos_t.data(), sin_t.data(), log_t.data());
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

TEST_F(TablesTest, AbsurdGeometryFreesTheOldTablesAndBuildsNone) {
  LogCapture log;
  for (const auto& [column_length, window_width, pclk] :
       {std::tuple{65537, 512, 240e6},
        {2000, -2, 240e6},
        {2000, 65536, 240e6},
        {2000, 512, 0.5},
        {2000, 512, std::numeric_limits<double>::quiet_NaN()}}) {
    Init(4000, 2000, 512, 240e6);
    EXPECT_EQ(Init(4000, column_length, window_width, pclk), "");
    EXPECT_TRUE(g_flkTab1 == nullptr && g_flkTab2 == nullptr && g_flkCompTab == nullptr);
    EXPECT_EQ(std::pair(g_flkTabW, g_valuMax), std::pair(0, 0));
  }
  EXPECT_THAT(log.Lines(),
              ElementsAre("[flicker_init] refused: column_length 65537 outside 0..65536",
                          "[flicker_init] refused: window_width -2 outside 0..65535",
                          "[flicker_init] refused: window_width 65536 outside 0..65535",
                          "[flicker_init] refused: pclk 0.500000 below 1 Hz or not finite",
                          "[flicker_init] refused: pclk nan below 1 Hz or not finite"));
}

}  // namespace
