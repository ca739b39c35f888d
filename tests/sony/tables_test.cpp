// SPDX-License-Identifier: Apache-2.0
// SONY tables: table width, log-table size and divisor, knot entries, trigonometric rows, and
// the refusals and clamp notice of the INIT.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "sony/sony.h"
#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;

class SonyTables : public LibraryTest {
 protected:
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
};

struct WidthCase {
  std::int32_t column_length;
  std::int32_t width;
};

class SonyTableWidth : public SonyTables, public ::testing::WithParamInterface<WidthCase> {};

TEST_P(SonyTableWidth, RoundsColumnLengthUpTo256) {
  flicker_init_SONY(3000, GetParam().column_length, 2, 180e6);
  EXPECT_EQ(g_flkTabW, GetParam().width);
}

INSTANTIATE_TEST_SUITE_P(Widths, SonyTableWidth,
                         ::testing::Values(WidthCase{256, 256}, WidthCase{257, 512},
                                           WidthCase{0, 256}, WidthCase{-5, 256},
                                           WidthCase{1080, 1280}, WidthCase{2048, 2048}));

struct LogCase {
  std::int32_t window_width;
  std::int32_t valu_max;
  std::vector<std::pair<std::int32_t, std::int32_t>> entries;  // index, value
};

void PrintTo(const LogCase& c, std::ostream* os) {
  *os << "window_width " << c.window_width;
}

class SonyLogTable : public SonyTables, public ::testing::WithParamInterface<LogCase> {};

TEST_P(SonyLogTable, EntriesAtKnotsAndEnds) {
  const LogCase& c = GetParam();
  flicker_init_SONY(3000, 1080, c.window_width, 180e6);
  ASSERT_NE(g_flkCompTab, nullptr);
  EXPECT_EQ(g_valuMax, c.valu_max);
  EXPECT_EQ(g_flkCompTab[0], 0);
  for (const auto& [index, value] : c.entries) {
    EXPECT_EQ(g_flkCompTab[index], value) << "entry " << index;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Widths, SonyLogTable,
    ::testing::Values(
        // D = 16, half 1, s 0: entry 1 is 65535 x log2(6) / 16; 80 -> x 512, 116 -> 1024, the
        // last (1024) continues the top segment past the curve's end.
        LogCase{2,
                1023,
                {{1, 10588},
                 {8, 23234},
                 {80, 36863},
                 {81, 37023},
                 {116, 40959},
                 {117, 41068},
                 {722, 61439},
                 {723, 61459},
                 {1023, 65535},
                 {1024, 65545}}},
        // D = 47 - 8 = 39, s = 2.
        LogCase{
            1024, 130944, {{1, 4344}, {2, 6024}, {80, 15123}, {130944, 38649}, {130945, 38649}}},
        // D = 47 - 7 = 40, s = 1: the knots move to half x c >> 1.
        LogCase{640,
                163680,
                {{1, 4235}, {100, 15273}, {12800, 26741}, {12801, 26742}, {163681, 38210}}},
        // Narrowest window with its own divisor: u = 1 needs 31 shifts, D = 47.
        LogCase{4, 2046, {{1, 3604}, {2, 4999}, {2046, 23704}, {2047, 23706}}}),
    [](const ::testing::TestParamInfo<LogCase>& info) {
      return "Width" + std::to_string(info.param.window_width);
    });

TEST_F(SonyTables, CompTableReturnsWithOnlyEntryZeroForAnEmptyRange) {
  std::int32_t table[2] = {7, 7};
  calCompTable_SONY(1, table, 0);  // half 0: V = 0, one entry computed
  EXPECT_EQ(table[0], 0);
  EXPECT_EQ(table[1], 27668);  // v = 1 falls past every zero threshold: x = 32768 / 301 = 108
}

TEST_F(SonyTables, TrigonometricRowsAtLineInstants) {
  flicker_init_SONY(3000, 1080, 2, 180e6);
  ASSERT_NE(g_flkTab1, nullptr);
  const std::int32_t w = g_flkTabW;
  for (std::int32_t k = 0; k < 9; ++k) {
    EXPECT_EQ(g_flkTab1[k * w], 255) << k;
    EXPECT_EQ(g_flkTab2[k * w], 0) << k;
  }
  // 100 Hz and 120 Hz at lines 1, 7, 100 and 255 (one line = 3000 / 180 MHz).
  const std::int32_t lines[4] = {1, 7, 100, 255};
  const std::int32_t cos100[4] = {255, 254, 127, -227};
  const std::int32_t sin100[4] = {3, 19, 221, 116};
  const std::int32_t cos120[4] = {255, 254, 79, -254};
  const std::int32_t sin120[4] = {3, 22, 243, -16};
  for (std::int32_t i = 0; i < 4; ++i) {
    EXPECT_EQ(g_flkTab1[3 * w + lines[i]], cos100[i]);
    EXPECT_EQ(g_flkTab2[3 * w + lines[i]], sin100[i]);
    EXPECT_EQ(g_flkTab1[4 * w + lines[i]], cos120[i]);
    EXPECT_EQ(g_flkTab2[4 * w + lines[i]], sin120[i]);
  }
}

TEST_F(SonyTables, InitLogsItsTimingUnderTheFlowFlag) {
  LogCapture log;
  flicker_init_SONY(3000, 1080, 300, 180e6);
  EXPECT_TRUE(log.Lines().empty());
  g_logFlow = 1;
  flicker_init_SONY(3000, 1080, 300, 180000000.9);
  EXPECT_TRUE(log.Contains("flicker_init_SONY 3000 columnLen=1080 winW = 300 180000000"));
}

TEST_F(SonyTables, ClampNoticeOnlyWhenTheTableStopsShort) {
  LogCapture log;
  flicker_init_SONY(3000, 1080, 511, 180e6);
  EXPECT_TRUE(log.Lines().empty());
  flicker_init_SONY(3000, 1080, 512, 180e6);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0],
            "[flicker_init_SONY] window_width 512: statistics above 130945 use the log table's "
            "last entry");
}

struct RefusedInit {
  const char* name;
  std::int32_t column_length;
  std::int32_t window_width;
  double pclk;
};

void PrintTo(const RefusedInit& c, std::ostream* os) {
  *os << c.name;
}

class SonyInitRefusal : public SonyTables, public ::testing::WithParamInterface<RefusedInit> {};

TEST_P(SonyInitRefusal, FreesTheOldTablesAndLogsOneLine) {
  flicker_init_SONY(3000, 1080, 300, 180e6);
  ASSERT_NE(g_flkTab1, nullptr);
  LogCapture log;
  flicker_init_SONY(3000, GetParam().column_length, GetParam().window_width, GetParam().pclk);
  EXPECT_EQ(g_flkTab1, nullptr);
  EXPECT_EQ(g_flkTab2, nullptr);
  EXPECT_EQ(g_flkCompTab, nullptr);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].rfind("[flicker_init_SONY] refused: ", 0), 0u) << log.Lines()[0];
}

INSTANTIATE_TEST_SUITE_P(Absurd, SonyInitRefusal,
                         ::testing::Values(RefusedInit{"ZeroClock", 1080, 300, 0.0},
                                           RefusedInit{"NegativeClock", 1080, 300, -1.0},
                                           RefusedInit{"HugeColumn", 65537, 300, 180e6},
                                           RefusedInit{"NegativeWindow", 1080, -2, 180e6},
                                           RefusedInit{"HugeWindow", 1080, 65537, 180e6}),
                         [](const ::testing::TestParamInfo<RefusedInit>& info) {
                           return info.param.name;
                         });

TEST_F(SonyTables, LargestAcceptedGeometryBuilds) {
  flicker_init_SONY(3000, 65536, 65536, 180e6);
  ASSERT_NE(g_flkCompTab, nullptr);
  EXPECT_EQ(g_flkTabW, 65536);
  EXPECT_EQ(g_valuMax, 2095104);  // 32768 x 1023 >> 4
}

}  // namespace
