// SPDX-License-Identifier: Apache-2.0
// 2x5 tables: widths, the pure-logarithm log table, the block-interval phase tables, refusals.
#include <gtest/gtest.h>

#include <string>

#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

using Values = std::vector<std::int32_t>;

class TwoByFiveTables : public kestrel_test::LibraryTest {
 protected:
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
  // Returns what the INIT printed on standard output.
  static std::string Init(std::int32_t column_length, std::int32_t window_width,
                          std::int32_t block_height, std::int32_t green_only) {
    testing::internal::CaptureStdout();
    flicker_init_2x5(1000, column_length, window_width, block_height, green_only, 24e6);
    return testing::internal::GetCapturedStdout();
  }
};

// A = 2 x 5 / 2 = 5: g_valuMax 20475, 6 entries up to top 24576, D = log2(24564); the stand-alone
// builder gives the same table, and another for grid step 16 (top 128, D = log2(124)).
TEST_F(TwoByFiveTables, GreenOnlyLogTableAndTheStandAloneBuilder) {
  EXPECT_EQ(Init(255, 5, 2, 1).rfind("log table exec time = ", 0), 0u);
  EXPECT_EQ(g_valuMax, 20475);
  const Values expected = {0, 53924, 58417, 61045, 62910, 64357};
  EXPECT_EQ(Values(g_flkCompTab, g_flkCompTab + 6), expected);
  Values table(9, -7);
  calLogTable_2x5(20475, table.data(), 12);
  EXPECT_EQ(Values(table.begin(), table.begin() + 6), expected);
  calLogTable_2x5(100, table.data(), 4);
  EXPECT_EQ(table, (Values{0, 38519, 47537, 52912, 56754, 59746, 62196, 64272, -7}));
}

// Widths jump past every multiple of 256. One sample per block of lines: w = f x 2 pi x
// (2 x 1000) / 24e6, the 100 Hz row (3) reaching a phase of pi / 6 at sample 10; every row starts
// at 255 and 0.
TEST_F(TwoByFiveTables, WidthsAndAPhaseAdvancingOneBlockPerSample) {
  for (const auto& [column_length, width] :
       {std::pair{0, 256}, {255, 256}, {256, 512}, {511, 512}, {512, 768}, {2160, 2304}}) {
    Init(column_length, 5, 2, 0);
    EXPECT_EQ(g_flkTabW, width) << column_length;
  }
  Init(300, 5, 2, 0);
  const std::int32_t w = g_flkTabW;
  EXPECT_EQ((Values{g_flkTab1[3 * w + 10], g_flkTab2[3 * w + 10], g_flkTab1[4 * w + 37],
                    g_flkTab2[4 * w + 37], g_flkTab1[4 * w + 255], g_flkTab2[4 * w + 255]}),
            (Values{221, 128, -175, 186, -243, -79}));
  for (int k = 0; k < 9; ++k) EXPECT_EQ(g_flkTab1[k * w] * 1000 + g_flkTab2[k * w], 255000) << k;
  // Asked for one row, the builder fills the 70 Hz row alone.
  Values one_cos(w, -7), one_sin(w, -7);
  calFftTable_2x5(2000, w, 1, 24e6, one_cos.data(), one_sin.data());
  EXPECT_EQ((Values{one_cos[10], one_sin[10], one_cos[37], one_sin[37]}),
            (Values{238, 91, 54, 249}));
}

// Absurd geometry frees the tables and refuses, after the flow line; 524414 pixels still fit,
// twice as many when only green pixels are summed.
TEST_F(TwoByFiveTables, AbsurdGeometryFreesTheTablesAndRefuses) {
  g_logFlow = 1;
  const std::tuple<int, int, int> absurd[] = {
      {65536, 5, 2}, {300, -5, 2}, {300, 5, -2}, {300, 524415, 1}, {300, 65536, 65536}};
  for (const auto& [column_length, window_width, block_height] : absurd) {
    Init(300, 5, 2, 0);
    kestrel_test::LogCapture log;
    Init(column_length, window_width, block_height, 0);
    EXPECT_TRUE(g_flkTab1 == nullptr && g_flkTab2 == nullptr && g_flkCompTab == nullptr);
    ASSERT_EQ(log.Lines().size(), 2u);
    EXPECT_EQ(log.Lines()[0].rfind("flicker_init_2x5 1000 columnLen=", 0), 0u);
    EXPECT_EQ(log.Lines()[1].rfind("[flicker_init_2x5] refused: ", 0), 0u) << log.Lines()[1];
  }
  Init(300, 524414, 1, 0);
  EXPECT_EQ(g_valuMax, 2147475330);
  Init(300, 524414, 2, 1);
  EXPECT_EQ(g_valuMax, 2147475330);
  Init(300, 5, 0, 0);  // no block height: every sample at the first line's phase
  EXPECT_EQ((Values{g_flkTab1[4 * g_flkTabW + 37], g_flkTab2[4 * g_flkTabW + 37]}),
            (Values{255, 0}));
}

}  // namespace
