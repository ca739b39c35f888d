// SPDX-License-Identifier: Apache-2.0
// SONY tables: table width, log-table size, divisor and knot entries, trigonometric rows, and
// the INIT's log lines and refusals.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "sony/sony_test.h"

namespace {

using kestrel_test::LogCapture;
using SonyTables = sony_test::SonyTest;

TEST_F(SonyTables, WidthRoundsColumnLengthUpTo256) {
  const std::int32_t cases[][2] = {{256, 256}, {257, 512}, {0, 256}, {-5, 256}, {1080, 1280}};
  for (const auto& [column_length, width] : cases) {
    flicker_init_SONY(3000, column_length, 2, 180e6);
    EXPECT_EQ(g_flkTabW, width) << column_length;
  }
}

TEST_F(SonyTables, LogEntriesAtKnotsAndEnds) {
  struct Case {
    std::int32_t window_width;
    std::int32_t valu_max;
    std::vector<std::pair<std::int32_t, std::int32_t>> entries;  // index, value
  };
  const Case cases[] = {
      // D = 16, s = 0: entry 1 is 65535 x log2(512 / 80 = 6) / 16; 80 -> x 512; the last entry
      // continues the top segment past the curve's end.
      {2, 1023, {{1, 10588}, {80, 36863}, {81, 37023}, {722, 61439}, {1023, 65535}, {1024, 65545}}},
      {1024, 130944, {{1, 4344}, {80, 15123}, {130945, 38649}}},   // D = 47 - 8 = 39, s = 2
      {640, 163680, {{1, 4235}, {12800, 26741}, {12801, 26742}}},  // D = 40, knots half x c >> 1
      {4, 2046, {{1, 3604}, {2047, 23706}}},                       // u = 1 takes 31 shifts: D = 47
      {1, 0, {{1, 27668}}},  // half 0: every threshold 0, x = 32768 / 301
  };
  for (const Case& c : cases) {
    flicker_init_SONY(3000, 1080, c.window_width, 180e6);
    ASSERT_NE(g_flkCompTab, nullptr);
    EXPECT_EQ(g_valuMax, c.valu_max);
    EXPECT_EQ(g_flkCompTab[0], 0);
    for (const auto& [index, value] : c.entries) {
      EXPECT_EQ(g_flkCompTab[index], value) << c.window_width << " entry " << index;
    }
  }
}

// Whole tables, digested (FNV-1a over the 32-bit entries) as the per-entry log10 expression built
// them: the series between anchors and the guard must give the same table entry for entry.
TEST(SonyLogTable, WholeTablesAsTheDirectExpressionBuiltThem) {
  struct Case {
    std::int32_t window_width, shift;
    std::size_t entries;
    std::uint64_t digest;
    double last;  // the last entry before truncation
  };
  const Case cases[] = {
      {2, 0, 1025, 0x31b3f4de602fa922u, 65545.230027837},
      {300, 0, 153452, 0x16270690bf5392a0u, 37129.809063427},
      {1024, 2, 130946, 0x2d2c878bfc922db5u, 38649.377365321},
      {4096, 3, 261890, 0xe34607ca6471b70au, 42509.705638533},
      {65536, 4, 2095106, 0x2cd58d038c3140aau, 53620.047759952},
      {100000, 9, 99904, 0x19ccbce6dca13072u, 44901.261738350},
      {1, 0, 2, 0x08567407b52879f1u, 27668.097028393},   // half 0: every threshold 0
      {2, 5, 33, 0x003fbb822daa081du, 45237.648038260},  // an entry at a knot's threshold
  };
  for (const Case& c : cases) {
    std::vector<std::int32_t> table(c.entries);
    EXPECT_NEAR(calCompTable_SONY(c.window_width, table.data(), c.shift), c.last, 1e-6);
    std::uint64_t digest = 14695981039346656037u;
    for (const std::int32_t e : table)
      digest = (digest ^ static_cast<std::uint32_t>(e)) * 1099511628211u;
    EXPECT_EQ(digest, c.digest) << c.window_width << " >> " << c.shift;
  }
}

TEST_F(SonyTables, TrigonometricRowsAtLineInstants) {
  flicker_init_SONY(3000, 1080, 2, 180e6);  // one line = 3000 / 180 MHz
  const std::int32_t w = g_flkTabW;
  for (std::int32_t k = 0; k < 9; ++k) {
    EXPECT_EQ(g_flkTab1[k * w], 255) << k;
    EXPECT_EQ(g_flkTab2[k * w], 0) << k;
  }
  // 100 Hz (row 3) at line 100, 120 Hz (row 4) at line 255.
  EXPECT_EQ((sony_test::Vec{g_flkTab1[3 * w + 100], g_flkTab2[3 * w + 100], g_flkTab1[4 * w + 255],
                            g_flkTab2[4 * w + 255]}),
            (sony_test::Vec{127, 221, -254, -16}));
}

TEST_F(SonyTables, LogsTimingUnderTheFlowFlagAndTheClampOnceForWideWindows) {
  LogCapture log;
  flicker_init_SONY(3000, 1080, 511, 180e6);
  flicker_init_SONY(3000, 1080, 2, 180e6);  // the narrowest window with a half
  EXPECT_TRUE(log.Lines().empty());
  g_logFlow = 1;
  flicker_init_SONY(3000, 1080, 512, 180000000.9);
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{
                "flicker_init_SONY 3000 columnLen=1080 winW = 512 180000000",
                "[flicker_init_SONY] window_width 512: statistics above 130945 use the log "
                "table's last entry"}));
}

TEST_F(SonyTables, RefusedInitFreesTheOldTablesWithOneLine) {
  const std::int32_t column_window[][2] = {{65537, 300}, {1080, -2}, {1080, 65537}, {1080, 300}};
  const double clocks[] = {180e6, 180e6, 180e6, 0.0};
  for (std::int32_t i = 0; i < 4; ++i) {
    flicker_init_SONY(3000, 1080, 300, 180e6);
    LogCapture log;
    flicker_init_SONY(3000, column_window[i][0], column_window[i][1], clocks[i]);
    EXPECT_EQ(g_flkTab1, nullptr);
    EXPECT_EQ(g_flkTab2, nullptr);
    EXPECT_EQ(g_flkCompTab, nullptr);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].rfind("[flicker_init_SONY] refused: ", 0), 0u) << log.Lines()[0];
  }
  std::int32_t table[2] = {7, 7};
  LogCapture log;
  calCompTable_SONY(1024, table, 10);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"[calCompTable_SONY] refused: shift 10 outside "
                                                  "0..9"});
  EXPECT_EQ(table[0], 7);
}

}  // namespace
