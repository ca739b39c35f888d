// SPDX-License-Identifier: Apache-2.0
// 2x5 driver and column selection: the middle-column reference with result 1, the dark
// fallback, the band height, and the refusals.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decision/decision.h"
#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

// Columns of 30 values, each {mean, k} with 2k - 1 sign swings (+5, -5 pairs, then flat).
std::int32_t Choose(const std::vector<std::pair<std::int32_t, std::int32_t>>& columns) {
  std::vector<std::int32_t> packed;
  for (const auto& [mean, swings] : columns) {
    for (std::int32_t i = 0; i < 30; ++i)
      packed.push_back(mean + (i > swings ? 0 : i % 2 ? -5 : 5));
  }
  return find_vector_2x5(packed.data(), 30, static_cast<std::int32_t>(columns.size()), 0, 100);
}

TEST(TwoByFiveColumnChooser, MiddleColumnIsTheReferenceAndTheAnswerStartsAtOne) {
  // No column beats a quiet, bright middle: column 1.
  EXPECT_EQ(Choose({{1000, 9}, {1100, 7}, {2000, 1}, {1200, 11}, {1300, 13}}), 1);
  // Column 3 is quieter and not 51 darker; column 4 as quiet (margin 30 / 30 = 1) and brighter.
  EXPECT_EQ(Choose({{1000, 9}, {1100, 7}, {2000, 9}, {1960, 3}, {1970, 3}}), 4);
  // 1949 is not above 2000 - 51.
  EXPECT_EQ(Choose({{1000, 9}, {1100, 7}, {2000, 9}, {1949, 3}, {1900, 11}}), 1);
  // All dark (below 100): the first strictly brightest positive mean. The other fallbacks are
  // the SONY chooser's, which this one shares.
  EXPECT_EQ(Choose({{50, 1}, {80, 3}, {20, 5}, {80, 7}, {-5, 9}}), 1);
}

// The exported band loop takes the band height as given and sends a single column through the
// chooser too; a dark single column would be column 1, past the grid, and is refused.
TEST(TwoByFiveVectorSelection, BandHeightIsTakenAsGiven) {
  std::vector<std::int32_t> cur(32), prev(32), out_prev(16, -1), out_cur(16, -1);
  for (std::int32_t i = 0; i < 32; ++i) {
    cur[i] = i % 2 ? 500 + i : 300 + i;  // column 1 is brighter
    prev[i] = cur[i] - 1;
  }
  vector_selection_2x5(prev.data(), cur.data(), 2, 2, 0, 8, nullptr, out_prev.data(),
                       out_cur.data());
  EXPECT_EQ(out_cur[0], 501);
  EXPECT_EQ(out_cur[15], 531);
  EXPECT_EQ(out_prev[15], 530);
  kestrel_test::LogCapture log;
  std::fill(cur.begin(), cur.begin() + 8, 7);
  std::fill(cur.begin() + 8, cur.end(), -3);  // the second band of one column is dark
  vector_selection_2x5(prev.data(), cur.data(), 2, 1, 0, 8, nullptr, out_prev.data(),
                       out_cur.data());
  EXPECT_EQ(out_cur[0], 501);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"[vector_selection_2x5] refused: band 1 of a "
                                                  "single column chooses column 1, past the grid"});
}

class TwoByFiveDriver : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    Init(2160);  // table width 2304
  }
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
  static void Init(std::int32_t column_length) {
    testing::internal::CaptureStdout();
    flicker_init_2x5(1389, column_length, 100, 4, 0, 100e6);
    testing::internal::GetCapturedStdout();
  }
  static std::int32_t Detect(std::vector<std::int32_t>& prev, std::vector<std::int32_t>& cur,
                             std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_ht) {
    return detectFlicker_SW_2x5(prev.data(), cur.data(), n_win_h, n_win_w, 0, win_ht, 0, {}, {}, {},
                                nullptr);
  }
};

// Every limit is refused before any work; the largest accepted frames run and queue a score.
TEST_F(TwoByFiveDriver, GeometryOutsideTheBuffersIsRefusedBeforeAnyWork) {
  struct Case {
    std::int32_t n_win_h, n_win_w, win_ht;
    const char* refusal;  // empty: accepted
  };
  const Case cases[] = {
      {0, 5, 540, "0 windows, limit 1..10"},
      {11, 5, 540, "11 windows, limit 1..10"},
      {3, 0, 540, "0 columns, limit 1..10"},
      {3, 11, 540, "11 columns, limit 1..10"},
      {3, 5, 2001, "frame of 2001 rows exceeds 2000"},
      {1, 1, 1999, "single window of 1999 rows exceeds 1998"},
      {3, 5, 11, "3 rows per window, at least 4"},
      {1, 7, 1800, "band of 12600 values exceeds 12000"},
      {2, 6, 2000, ""},
      {10, 10, 2000, ""},
      {1, 1, 1998, ""},
  };
  std::vector<std::int32_t> grid(2001 * 11);
  for (std::size_t i = 0; i < grid.size(); ++i) grid[i] = 1000 + static_cast<std::int32_t>(i % 37);
  for (const Case& c : cases) {
    kestrel_test::LogCapture log;
    const std::string refusal = c.refusal;
    g_queueCount = 0;
    line_curr_working_memory[0] = -5;
    EXPECT_EQ(Detect(grid, grid, c.n_win_h, c.n_win_w, c.win_ht), 0);
    if (refusal.empty()) {
      EXPECT_EQ(g_queueCount, 1) << c.win_ht;
      continue;
    }
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"[detectFlicker_SW_2x5] refused: " + refusal +
                                                    ", result 0"});
    EXPECT_EQ(line_curr_working_memory[0], -5);
    EXPECT_EQ(g_queueCount, 0);
  }
  Init(255);  // width 256
  kestrel_test::LogCapture log;
  EXPECT_EQ(Detect(grid, grid, 3, 5, 300), 0);
  flicker_uninit();
  EXPECT_EQ(Detect(grid, grid, 3, 5, 300), 0);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "[detectFlicker_SW_2x5] refused: frame of 300 rows exceeds the table "
                             "width 256, result 0",
                             "[detectFlicker_SW_2x5] refused: no tables, result 0"}));
}

}  // namespace
