// SPDX-License-Identifier: Apache-2.0
// 2x5 tables: widths, the pure-logarithm log table, the block-interval phase tables, refusals.
#include <gtest/gtest.h>

#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

class TwoByFiveTables : public kestrel_test::LibraryTest {
 protected:
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
};

TEST_F(TwoByFiveTables, TwoByFiveGreenOnlyGeometry) {
  testing::internal::CaptureStdout();
  flicker_init_2x5(1000, 255, 5, 2, 1, 24e6);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("log table exec time = ", 0), 0u) << out;
  EXPECT_EQ(g_flkTabW, 256);
  EXPECT_EQ(g_valuMax, 20475);
  const std::int32_t expected[6] = {0, 53924, 58417, 61045, 62910, 64357};
  for (int j = 0; j < 6; ++j) EXPECT_EQ(g_flkCompTab[j], expected[j]) << j;
}

TEST_F(TwoByFiveTables, WidthJumpsPastEveryMultipleOf256) {
  struct Case {
    std::int32_t column_length, width;
  };
  for (const Case c : {Case{0, 256}, Case{255, 256}, Case{256, 512}, Case{511, 512}, Case{512, 768},
                       Case{2160, 2304}}) {
    testing::internal::CaptureStdout();
    flicker_init_2x5(1000, c.column_length, 5, 2, 0, 24e6);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(g_flkTabW, c.width) << c.column_length;
  }
}

// One sample per block of lines: w = f x 2 pi x (block_height x line_length) / pclk, the
// 100 Hz row reaching a phase of pi / 6 at sample 10.
TEST_F(TwoByFiveTables, PhaseAdvancesOneBlockPerSample) {
  testing::internal::CaptureStdout();
  flicker_init_2x5(1000, 300, 5, 2, 0, 24e6);
  testing::internal::GetCapturedStdout();
  const std::int32_t w = g_flkTabW;
  const std::int32_t n[4] = {1, 10, 37, 255};
  const std::int32_t cos100[4] = {255, 221, -91, 180};
  const std::int32_t sin100[4] = {13, 128, 238, 180};
  const std::int32_t cos120[4] = {254, 206, -175, -243};
  const std::int32_t sin120[4] = {16, 150, 186, -79};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(g_flkTab1[3 * w + n[i]], cos100[i]) << n[i];
    EXPECT_EQ(g_flkTab2[3 * w + n[i]], sin100[i]) << n[i];
    EXPECT_EQ(g_flkTab1[4 * w + n[i]], cos120[i]) << n[i];
    EXPECT_EQ(g_flkTab2[4 * w + n[i]], sin120[i]) << n[i];
  }
  for (int k = 0; k < 9; ++k) {
    EXPECT_EQ(g_flkTab1[k * w], 255);
    EXPECT_EQ(g_flkTab2[k * w], 0);
  }
}

TEST_F(TwoByFiveTables, StandAloneLogTableMatchesInitAndOtherGrids) {
  std::int32_t table[8] = {};
  calLogTable_2x5(20475, table, 12);
  const std::int32_t expected12[6] = {0, 53924, 58417, 61045, 62910, 64357};
  for (int j = 0; j < 6; ++j) EXPECT_EQ(table[j], expected12[j]) << j;
  // Grid step 16: top = ((100 >> 4) + 2) << 4 = 128, D = log2(124).
  std::int32_t fine[9] = {};
  fine[8] = -7;
  calLogTable_2x5(100, fine, 4);
  const std::int32_t expected4[8] = {0, 38519, 47537, 52912, 56754, 59746, 62196, 64272};
  for (int j = 0; j < 8; ++j) EXPECT_EQ(fine[j], expected4[j]) << j;
  EXPECT_EQ(fine[8], -7);
}

TEST_F(TwoByFiveTables, FlowLogNamesTheGeometry) {
  kestrel_test::LogCapture log;
  g_logFlow = 1;
  testing::internal::CaptureStdout();
  flicker_init_2x5(1389, 2160, 100, 4, 0, 100e6);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(log.Contains("flicker_init_2x5 1389 columnLen=2160 winW = 100 100000000"));
}

TEST_F(TwoByFiveTables, AbsurdGeometryFreesTheTablesAndRefuses) {
  testing::internal::CaptureStdout();
  flicker_init_2x5(1000, 300, 5, 2, 0, 24e6);
  testing::internal::GetCapturedStdout();
  ASSERT_NE(g_flkTab1, nullptr);
  struct Case {
    std::int32_t column_length, window_width, block_height;
  };
  for (const Case c : {Case{65536, 5, 2}, Case{300, -5, 2}, Case{300, 5, -2}, Case{300, 524415, 1},
                       Case{300, 65536, 65536}}) {
    kestrel_test::LogCapture log;
    flicker_init_2x5(1000, c.column_length, c.window_width, c.block_height, 0, 24e6);
    EXPECT_EQ(g_flkTab1, nullptr);
    EXPECT_EQ(g_flkTab2, nullptr);
    EXPECT_EQ(g_flkCompTab, nullptr);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].rfind("[flicker_init_2x5] refused: ", 0), 0u) << log.Lines()[0];
  }
  // The largest statistic still accepted: 524414 pixels.
  testing::internal::CaptureStdout();
  flicker_init_2x5(1000, 300, 524414, 1, 0, 24e6);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(g_valuMax, 2147475330);
  EXPECT_NE(g_flkCompTab, nullptr);
  // Green-only statistics sum half the pixels: twice the window fits.
  testing::internal::CaptureStdout();
  flicker_init_2x5(1000, 300, 524414, 2, 1, 24e6);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(g_valuMax, 2147475330);
}

}  // namespace
