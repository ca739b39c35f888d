// SPDX-License-Identifier: Apache-2.0
// Standard tables: widths, value range, trigonometric and log table contents, INIT refusals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <ostream>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "interface/interface.h"
#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LogCapture;

class TablesTest : public kestrel_test::LibraryTest {
 protected:
  void TearDown() override {
    flicker_uninit();
    kestrel_test::LibraryTest::TearDown();
  }
  // Runs flicker_init and returns what it printed on standard output.
  static std::string Init(std::int32_t line_length, std::int32_t column_length,
                          std::int32_t window_width, double pclk) {
    testing::internal::CaptureStdout();
    flicker_init(line_length, column_length, window_width, pclk);
    return testing::internal::GetCapturedStdout();
  }
  static std::int64_t Sum(const std::int32_t* t, std::int32_t n) {
    return std::accumulate(t, t + n, std::int64_t{0});
  }
};

struct WidthCase {
  std::int32_t column_length;
  std::int32_t width;
};
void PrintTo(const WidthCase& c, std::ostream* os) { *os << "column_length " << c.column_length; }
class TableWidthTest : public testing::TestWithParam<WidthCase> {};

TEST_P(TableWidthTest, RoundsFourLineSamplesUpToMultipleOf500) {
  std::int32_t width = -1;
  std::int32_t count = -1;
  flk_getTablSize(123, GetParam().column_length, &width, &count);
  EXPECT_EQ(width, GetParam().width);
  EXPECT_EQ(count, 9);
}

INSTANTIATE_TEST_SUITE_P(Geometries, TableWidthTest,
                         testing::Values(WidthCase{2000, 500}, WidthCase{2001, 1000},
                                         WidthCase{0, 500}, WidthCase{-40, 500},
                                         WidthCase{1, 500}, WidthCase{4000, 1000},
                                         WidthCase{4001, 1500}, WidthCase{7999, 2000},
                                         WidthCase{8004, 2500}, WidthCase{65536, 16500}));

struct RangeCase {
  std::int32_t window_width;
  std::int32_t value_max;
  std::int32_t entries;     // N, as printed
  std::int64_t table_sum;   // sum of the N log-table entries
  std::int32_t last_entry;
};
void PrintTo(const RangeCase& c, std::ostream* os) { *os << "window_width " << c.window_width; }
class LogTableTest : public TablesTest, public testing::WithParamInterface<RangeCase> {};

TEST_P(LogTableTest, RangeShiftValueMaxAndContents) {
  const RangeCase& c = GetParam();
  const std::string out = Init(4000, 2000, c.window_width, 240e6);
  EXPECT_EQ(g_valuMax, c.value_max);
  EXPECT_THAT(out, testing::EndsWith("\nsize: " + std::to_string(c.entries) + "\n"));
  ASSERT_NE(g_flkCompTab, nullptr);
  EXPECT_EQ(g_flkCompTab[0], 0);
  EXPECT_EQ(Sum(g_flkCompTab, c.entries), c.table_sum);
  EXPECT_EQ(g_flkCompTab[c.entries - 1], c.last_entry);
}

INSTANTIATE_TEST_SUITE_P(
    WindowWidths, LogTableTest,
    testing::Values(RangeCase{511, 16711425, 4081, 237640653, 65520},  // s = 0, half 255
                    RangeCase{512, 8388480, 2049, 113736449, 62804},   // s = 1, half 256
                    RangeCase{1024, 8388480, 2049, 113736449, 62804},  // s = 2
                    RangeCase{2048, 8388480, 2049, 113736449, 62804},  // s = 3
                    RangeCase{4096, 8388480, 2049, 113736449, 62804},  // s = 4
                    RangeCase{700, 11468625, 2801, 158940980, 64037},
                    // Knots 3 and 6 fall exactly on entries 1538 and 4614.
                    RangeCase{18676, 38247864, 9339, 574323335, 68782},
                    RangeCase{32768, 67107840, 16385, 1043948630, 70996},
                    RangeCase{65535, 134211584, 32768, 2177278144, 73727},
                    RangeCase{0, 0, 2, 34858, 34858}));

TEST_F(TablesTest, LogTableFollowsEachSegmentOfTheCompandingCurve) {
  Init(4000, 2000, 511, 240e6);
  // Entries 1..3 lie in the first segment (x <= 1310700), 319..321 straddle the fourth knot
  // (t4 = 4063170 < 4096 x 320), 4080 is the top (x > t7).
  const std::int32_t index[] = {1, 2, 3, 319, 320, 321, 1000, 4080};
  const std::int32_t expected[] = {23691, 26417, 28012, 46393, 46405, 46433, 54672, 65520};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(g_flkCompTab[index[i]], expected[i]) << index[i];
}

struct TrigCase {
  std::int32_t line_length;
  std::int32_t column_length;
  double pclk;
  std::int32_t width;
  std::int64_t cos_sum;
  std::int64_t sin_sum;
  std::int32_t cos100[5];  // row 3 (100 Hz), samples 0..4
  std::int32_t sin100[5];
  std::int32_t cos170_last;  // row 8, sample W - 1
  std::int32_t sin170_last;
  std::int32_t cos80_123;    // row 1, sample 123
  std::int32_t sin120_77;    // row 4, sample 77
};
void PrintTo(const TrigCase& c, std::ostream* os) { *os << "column_length " << c.column_length; }
class TrigTableTest : public TablesTest, public testing::WithParamInterface<TrigCase> {};

TEST_P(TrigTableTest, EqualsReferenceEntryForEntry) {
  const TrigCase& c = GetParam();
  Init(c.line_length, c.column_length, 512, c.pclk);
  const std::int32_t w = c.width;
  ASSERT_EQ(g_flkTabW, w);
  ASSERT_NE(g_flkTab1, nullptr);
  ASSERT_NE(g_flkTab2, nullptr);
  EXPECT_EQ(Sum(g_flkTab1, 9 * w), c.cos_sum);
  EXPECT_EQ(Sum(g_flkTab2, 9 * w), c.sin_sum);
  for (int n = 0; n < 5; ++n) {
    EXPECT_EQ(g_flkTab1[3 * w + n], c.cos100[n]) << n;
    EXPECT_EQ(g_flkTab2[3 * w + n], c.sin100[n]) << n;
  }
  EXPECT_EQ(g_flkTab1[8 * w + w - 1], c.cos170_last);
  EXPECT_EQ(g_flkTab2[8 * w + w - 1], c.sin170_last);
  EXPECT_EQ(g_flkTab1[1 * w + 123], c.cos80_123);
  EXPECT_EQ(g_flkTab2[4 * w + 77], c.sin120_77);
  for (int k = 0; k < 9; ++k) {
    EXPECT_EQ(g_flkTab1[k * w], 255) << k;
    EXPECT_EQ(g_flkTab2[k * w], 0) << k;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Geometries, TrigTableTest,
    testing::Values(TrigCase{4000, 2000, 240e6, 500, 8050, 58099, {255, 255, 254, 253, 251},
                             {0, 11, 21, 32, 43}, -143, -211, -142, -170},
                    TrigCase{5000, 2001, 480e6, 1000, -2583, 63210, {255, 255, 255, 254, 254},
                             {0, 7, 13, 20, 27}, 226, 118, -215, 169},
                    TrigCase{3200, 7999, 333.3e6, 2000, 14981, 70634,
                             {255, 255, 255, 254, 254}, {0, 6, 12, 18, 25}, 242, 80, -184,
                             202}));

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

TEST_F(TablesTest, TimingLineGoesToStandardOutputWithLoggingOff) {
  LogCapture log;
  const std::string out = Init(4000, 2000, 512, 240e6);
  EXPECT_THAT(out, testing::MatchesRegex("\ntime: [0-9]+\\.[0-9]{6}\nsize: 2049\n"));
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(TablesTest, FlowFlagLogsTheGeometry) {
  g_logFlow = 1;
  LogCapture log;
  Init(4000, 2000, 512, 240000000.9);
  Init(4000, 2000, 512, 2400000000.0);  // beyond 32 bits: shown as the lowest 32-bit value
  EXPECT_THAT(log.Lines(),
              testing::ElementsAre("flicker_init 4000 columnLen=2000 winW = 512 240000000",
                                   "flicker_init 4000 columnLen=2000 winW = 512 -2147483648"));
}

TEST_F(TablesTest, SecondInitRebuildsAndUninitTwiceIsHarmless) {
  Init(4000, 2000, 512, 240e6);
  Init(5000, 2001, 511, 480e6);
  EXPECT_EQ(g_flkTabW, 1000);
  EXPECT_EQ(g_valuMax, 16711425);
  EXPECT_EQ(g_flkTab2[3 * 1000 + 1], 7);
  flicker_uninit();
  flicker_uninit();
  EXPECT_EQ(g_flkTab1, nullptr);
  EXPECT_EQ(g_flkTab2, nullptr);
  EXPECT_EQ(g_flkCompTab, nullptr);
  // The scalars survive an UNINIT.
  EXPECT_EQ(g_flkTabW, 1000);
  EXPECT_EQ(g_valuMax, 16711425);
}

TEST_F(TablesTest, LargestAcceptedGeometry) {
  Init(4000, 65536, 65535, 1.0);
  EXPECT_EQ(g_flkTabW, 16500);
  EXPECT_EQ(g_valuMax, 134211584);
  EXPECT_NE(g_flkTab1, nullptr);
}

TEST_F(TablesTest, InitAndUninitThroughTheCommandEntry) {
  LogCapture log;
  FlkInitPara para{};
  para.type = FLK_SENSOR_STANDARD;
  para.line_length = 4000;
  para.column_length = 2000;
  para.window_width = 512;
  para.pclk = 240e6;
  testing::internal::CaptureStdout();
  SendCmdFlk(CMD_INIT, &para, nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::EndsWith("\nsize: 2049\n"));
  EXPECT_EQ(g_flkTabW, 500);
  EXPECT_EQ(g_valuMax, 8388480);
  EXPECT_EQ(g_flkTab1[3 * 500 + 4], 251);
  EXPECT_EQ(g_flkTabType, FLK_SENSOR_STANDARD);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  EXPECT_EQ(g_flkTab1, nullptr);
  EXPECT_EQ(g_flkTab2, nullptr);
  EXPECT_EQ(g_flkCompTab, nullptr);

  // A refused geometry leaves the standard type without tables.
  para.window_width = -1;
  testing::internal::CaptureStdout();
  SendCmdFlk(CMD_INIT, &para, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(g_flkTab1, nullptr);
  EXPECT_EQ(g_flkTabType, -1);
  EXPECT_TRUE(log.Contains("[flicker_init] refused: window_width -1 outside 0..65535"));
}

struct RefusalCase {
  std::int32_t column_length;
  std::int32_t window_width;
  double pclk;
  const char* line;
};
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.line; }
class InitRefusalTest : public TablesTest, public testing::WithParamInterface<RefusalCase> {};

TEST_P(InitRefusalTest, FreesOldTablesAndBuildsNone) {
  const RefusalCase& c = GetParam();
  Init(4000, 2000, 512, 240e6);
  LogCapture log;
  const std::string out = Init(4000, c.column_length, c.window_width, c.pclk);
  EXPECT_THAT(log.Lines(), testing::ElementsAre(c.line));
  EXPECT_EQ(out, "");
  EXPECT_EQ(g_flkTab1, nullptr);
  EXPECT_EQ(g_flkTab2, nullptr);
  EXPECT_EQ(g_flkCompTab, nullptr);
  EXPECT_EQ(g_flkTabW, 0);
  EXPECT_EQ(g_valuMax, 0);
}

INSTANTIATE_TEST_SUITE_P(
    AbsurdGeometry, InitRefusalTest,
    testing::Values(
        RefusalCase{-1, 512, 240e6, "[flicker_init] refused: column_length -1 outside 0..65536"},
        RefusalCase{65537, 512, 240e6,
                    "[flicker_init] refused: column_length 65537 outside 0..65536"},
        RefusalCase{2000, -2, 240e6, "[flicker_init] refused: window_width -2 outside 0..65535"},
        RefusalCase{2000, 65536, 240e6,
                    "[flicker_init] refused: window_width 65536 outside 0..65535"},
        RefusalCase{2000, 512, 0.0,
                    "[flicker_init] refused: pclk 0.000000 below 1 Hz or not finite"},
        RefusalCase{2000, 512, 0.5,
                    "[flicker_init] refused: pclk 0.500000 below 1 Hz or not finite"},
        RefusalCase{2000, 512, std::numeric_limits<double>::quiet_NaN(),
                    "[flicker_init] refused: pclk nan below 1 Hz or not finite"},
        RefusalCase{2000, 512, std::numeric_limits<double>::infinity(),
                    "[flicker_init] refused: pclk inf below 1 Hz or not finite"}));

}  // namespace
