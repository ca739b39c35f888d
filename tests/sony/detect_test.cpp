// SPDX-License-Identifier: Apache-2.0
// SONY driver: tone curve values, column choice (margins, fallback, one column), width
// normalisation of the caller's grids, the column applied to both frames, and the refusals.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "sony/sony_test.h"

namespace {

using kestrel_test::LogCapture;
using sony_test::Head;
using sony_test::Vec;

TEST(SonyToneCurve, TenBitsToTenBitsInPlace) {
  // 1023 is 722 + ((511 x 302 + 256) >> 9); a negative input reads as huge and clips.
  Vec v = {0, 1, 8, 9, 16, 100, 512, 513, 1000, 1023, 2000, -1, -2147483647 - 1};
  SGG_adaptive_SONY(v.data(), v.data(), 13, 10, 10);
  EXPECT_EQ(v, (Vec{0, 10, 80, 85, 116, 308, 722, 723, 1010, 1023, 1023, 1023, 1023}));
  LogCapture log;
  SGG_adaptive_SONY(v.data(), v.data(), 13, 7, 10);  // no knots below 8 bits: refused
  EXPECT_EQ(v[1], 10);
  EXPECT_EQ(log.Lines().size(), 1u);
  Vec top = {1023, 512};
  SGG_adaptive_SONY(top.data(), top.data(), 2, 10, 30);  // the widest output: accepted
  EXPECT_NE(top, (Vec{1023, 512}));
  EXPECT_EQ(log.Lines().size(), 1u);
}

TEST(SonyColumnChoice, PicksTheExpectedColumn) {
  struct Case {
    std::int32_t len;
    std::vector<std::pair<std::int32_t, std::int32_t>> columns;  // mean, swings
    std::int32_t chosen;
  };
  const Case cases[] = {
      // Equal counts: the brightest column with a positive mean, the first on a tie.
      {60, {{400000, 3}, {500000, 3}}, 1},
      {60, {{500000, 3}, {500000, 3}, {1, 3}}, 0},
      {60, {{0, 0}, {0, 0}, {0, 0}}, 1},
      {60, {{300000, 1}, {200000, 9}, {358399, 5}}, 2},  // all below 358400: the brightest
      // len 60: margin 2. A brighter column within two swings replaces the quieter one.
      {60, {{1000000, 5}, {1000001, 7}}, 1},
      {60, {{1000000, 5}, {1000001, 8}}, 0},
      // A clearly quieter column wins if it is at most 50 darker.
      {60, {{1000000, 10}, {999950, 3}}, 1},
      {60, {{1000000, 10}, {999949, 3}}, 0},
      // One column: allEqual holds, so the fallback decides: 0 if bright, else the default 1.
      {30, {{5, 4}}, 0},
      {30, {{-30, 4}}, 1}};
  for (const Case& c : cases) {
    Vec cols;
    for (const auto& [mean, swings] : c.columns) {
      // len values around `mean` with `swings` sign changes, summing to len x mean.
      Vec col(static_cast<std::size_t>(c.len), mean);
      for (std::int32_t i = 0, sign = 1; i <= swings; ++i, sign = -sign) col[i] += sign;
      if (swings % 2 == 0) col[swings + 2] -= 1;  // balanced after a zero, which breaks a swing
      cols.insert(cols.end(), col.begin(), col.end());
    }
    const auto ncols = static_cast<std::int32_t>(c.columns.size());
    EXPECT_EQ(find_vector_SONY(cols.data(), c.len, ncols, 0, 358400), c.chosen)
        << c.columns[0].first << "/" << c.columns[0].second;
  }
}

TEST(SonyColumnChoice, SubtractsTheMeanInPlaceAndCountsAcrossTheDeadBand) {
  // Mean 10: deviations -3 +3 -1 +1 0 -2 +2, two swings past +-1; the quiet column none. Both
  // means are dark, so the fallback takes the first brightest: column 0.
  Vec cols = {7, 13, 9, 11, 10, 8, 12, 10, 10, 10, 10, 10, 10, 10};
  EXPECT_EQ(find_vector_SONY(cols.data(), 7, 2, 1, 358400), 0);
  EXPECT_EQ(Vec(cols.begin(), cols.begin() + 7), (Vec{-3, 3, -1, 1, 0, -2, 2}));
  EXPECT_EQ(find_vector_SONY(cols.data(), 7, 0, 0, 0), 1);
}

class SonyDriver : public sony_test::SonyTest {
 protected:
  void SetUp() override {
    SonyTest::SetUp();
    set_flicker_state(EV_TABLE_60HZ);
  }
  static std::int32_t Detect(Vec& prev, Vec& cur, std::int32_t n_win_h, std::int32_t n_win_w,
                             std::int32_t win_wd, std::int32_t win_ht) {
    return detectFlicker_SW_SONY(prev.data(), cur.data(), n_win_h, n_win_w, win_wd, win_ht, 0,
                                 FlkSensorInfo{}, FlkEISVector{}, FlkAEInfo{}, nullptr);
  }
};

TEST_F(SonyDriver, WidthNormalisationRewritesBothGridsInPlace) {
  // Statistic 1 is 10 after the curve, 100 is 308; then times win_wd / 2 unless win_wd is 2.
  const std::int32_t cases[][3] = {{2, 10, 308}, {3, 10, 308}, {4, 20, 616}, {1, 0, 0}, {0, 0, 0}};
  for (const auto& [win_wd, scaled_1, scaled_100] : cases) {
    Vec prev(16, 1), cur(16, 100);
    Detect(prev, cur, 1, 2, win_wd, 8);
    EXPECT_EQ(prev, Vec(16, scaled_1)) << win_wd;
    EXPECT_EQ(cur, Vec(16, scaled_100)) << win_wd;
  }
}

TEST_F(SonyDriver, ColumnChosenOnTheCurrentFrameIsCopiedFromBoth) {
  // Two bands of 8 rows, two columns. Current: column 0 black, column 1 at 500 (curve 712):
  // equal (zero) swing counts, so the brighter column 1. Previous: 7 and 9 (curves 70 and 85).
  Vec cur(32), prev(32);
  for (std::int32_t i = 0; i < 32; i += 2) {
    cur[i + 1] = 500;
    prev[i] = 7;
    prev[i + 1] = 9;
  }
  line_curr_working_memory[16] = line_prev_working_memory[16] = -77;  // past both bands
  Detect(prev, cur, 2, 2, 2, 8);
  Vec curr_line(17, 712), prev_line(17, 85);
  curr_line[16] = prev_line[16] = -77;
  EXPECT_EQ(Head(line_curr_working_memory, 17), curr_line);
  EXPECT_EQ(Head(line_prev_working_memory, 17), prev_line);
}

TEST_F(SonyDriver, RefusalsLeaveGridsQueueAndWorkingMemoriesUntouched) {
  struct Case {
    std::int32_t n_win_h, n_win_w, win_ht, value;
    const char* text;
  };
  const Case cases[] = {
      {1, 11, 8, 300, "n_win_w 11 outside 1..10 columns"},
      {11, 1, 8, 300, "n_win_h 11 outside 0..10 windows"},
      {3, 1, 3, 300, "win_ht 3 outside 4..1000 rows per window"},
      {3, 1, 667, 300, "frame of 2001 rows outside 7..2000"},
      {2, 1, 641, 300, "frame of 1282 rows longer than the tables' 1280"},
      // One black column: the choice would fall back to column 1, past the grid.
      {2, 1, 8, 0, "band 0 of the single column has no positive mean to choose it by"}};
  for (const Case& c : cases) {
    Vec prev(12000, c.value), cur = prev;
    line_curr_working_memory[0] = -77;
    cvector_out_working_memory[0] = -77;
    LogCapture log;
    EXPECT_EQ(Detect(prev, cur, c.n_win_h, c.n_win_w, 2, c.win_ht), 3);
    EXPECT_EQ(log.Lines(),
              std::vector<std::string>{std::string("[detectFlicker_SW_SONY] refused: ") + c.text +
                                       ", result 3"});
    EXPECT_TRUE(prev == Vec(12000, c.value) && cur == prev);
    EXPECT_EQ(line_curr_working_memory[0], -77);
    EXPECT_EQ(cvector_out_working_memory[0], -77);
    EXPECT_EQ(g_queueCount, 0);
  }
  flicker_uninit();
  Vec grid(8, 300);
  LogCapture log;
  EXPECT_EQ(Detect(grid, grid, 1, 1, 2, 8), 3);
  EXPECT_TRUE(log.Contains("[detectFlicker_SW_SONY] refused: no tables, result 3"));
  EXPECT_EQ(grid, Vec(8, 300));
}

TEST(SonyVectorSelection, MatchesTheDriverAndRefusesAColumnPastTheGridBeforeWriting) {
  // One band of 8 rows, two columns: column 0 swings, column 1 is flat and brighter.
  std::int32_t cur[16] = {3, 6, 5, 6, 3, 6, 5, 6, 3, 6, 5, 6, 3, 6, 5, 6};
  std::int32_t prev[16] = {0, 100, 1, 101, 2, 102, 3, 103, 4, 104, 5, 105, 6, 106, 7, 107};
  Vec out_prev(8), out_cur(8);
  vector_selection_SONY(prev, cur, 1, 2, 2, 8, nullptr, out_prev.data(), out_cur.data());
  EXPECT_EQ(out_cur, Vec(8, 6));
  EXPECT_EQ(out_prev, (Vec{100, 101, 102, 103, 104, 105, 106, 107}));
  std::int32_t dark[8] = {};
  cvector_out_working_memory[0] = -77;
  LogCapture log;
  vector_selection_SONY(dark, dark, 1, 1, 2, 8, nullptr, out_prev.data(), out_cur.data());
  EXPECT_EQ(log.Lines(), std::vector<std::string>{
                             "[vector_selection_SONY] refused: band 0 chose column 1 past the "
                             "grid's 1"});
  EXPECT_EQ(out_cur, Vec(8, 6));
  EXPECT_EQ(cvector_out_working_memory[0], -77);  // nothing transposed
}

}  // namespace
