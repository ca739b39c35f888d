// SPDX-License-Identifier: Apache-2.0
// Column selection: swing counting with its shifted pairs, tie-breaks, the dark and quiet rules.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "standard/standard.h"

namespace {

struct FindVectorCase {
  const char* name;
  std::vector<std::int32_t> cols;  // ncols columns of len entries, back to back
  std::int32_t len;
  std::int32_t ncols;
  std::int32_t min_mean;
  std::int32_t expected;
};

class FindVectorTest : public ::testing::TestWithParam<FindVectorCase> {};

TEST_P(FindVectorTest, ChoosesColumn) {
  const FindVectorCase& c = GetParam();
  // Exactly sized, so a read before the first column trips the address sanitizer.
  std::vector<std::int32_t> cols = c.cols;
  EXPECT_EQ(find_vector(cols.data(), c.len, c.ncols, 100, c.min_mean), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FindVectorTest,
    ::testing::Values(
        // Column 0 swings -101 -> +101 (one swing); column 1 swings once too and is brighter.
        FindVectorCase{"swing_101_counts", {0, -101, 101, 0, 1000, 500, 1500, 1000}, 4, 2, 0, 1},
        // -100 -> +101 is not a swing (strict): column 0 is quiet and wins on its count.
        FindVectorCase{"swing_100_does_not", {0, -100, 101, -1, 1000, 500, 1500, 1000}, 4, 2, 0, 0},
        // Column 0 starts at -500 after centring: the guard word 0 before the buffer makes no
        // swing of it, so column 0 (no swing) beats the brighter column 1 (one swing).
        FindVectorCase{"guard_word_is_zero", {-500, 0, 500, 0, 1000, 500, 1500, 1000}, 4, 2, 0, 0},
        // Column 1's first pair borrows column 0's last centred entry (-500 -> +500): one swing,
        // so the darker but quiet column 0 wins.
        FindVectorCase{
            "pair_borrows_previous_column", {250, 250, 0, -500, 1500, 1000, 1000, 500}, 4, 2, 0, 0},
        // Column 1 ends on a +500 -> -500 swing, which is never examined: it stays quiet and the
        // brighter column wins.
        FindVectorCase{
            "last_entry_never_b", {1000, 500, 1500, 1000, 2000, 2000, 2500, 1500}, 4, 2, 0, 1},
        // Equal counts and equal means: the first column.
        FindVectorCase{"tie_first", {1000, 500, 1500, 1000, 1000, 500, 1500, 1000}, 4, 2, 0, 0},
        // Equal counts: the larger mean.
        FindVectorCase{
            "tie_larger_mean", {1000, 500, 1500, 1000, 3000, 2500, 3500, 3000}, 4, 2, 0, 1},
        // A mean of exactly 358400 is not dark: the swing counts decide (column 1, one swing
        // against two).
        FindVectorCase{"mean_at_dark_bound_not_dark",
                       {358400, 357900, 358900, 357900, 358900, 100, -400, 600, 100, 100},
                       5,
                       2,
                       358400,
                       1},
        // One below: every column is dark and the brightest is taken.
        FindVectorCase{"all_dark_brightest",
                       {358399, 357899, 358899, 357899, 358899, 100, -400, 600, 100, 100},
                       5,
                       2,
                       358400,
                       0},
        // All quiet: the first strictly largest mean.
        FindVectorCase{"all_quiet_first_largest", {5, 5, 9, 9, 9, 9}, 2, 3, 0, 1},
        // All quiet and no mean above 0: the default column 1, even for a single column.
        FindVectorCase{"single_dark_column_defaults_to_1", {0, 0, 0, 0}, 4, 1, 358400, 1},
        FindVectorCase{"single_bright_quiet_column", {400000, 400000}, 2, 1, 358400, 0},
        FindVectorCase{"no_columns", {}, 0, 0, 358400, 1}),
    [](const ::testing::TestParamInfo<FindVectorCase>& info) { return info.param.name; });

TEST(FindVectorTest, CentresColumnsInPlace) {
  std::vector<std::int32_t> cols = {10, 20, 30, 40, 5, 7};
  find_vector(cols.data(), 3, 2, 100, 358400);
  EXPECT_EQ(cols, (std::vector<std::int32_t>{-10, 0, 10, 23, -12, -10}));
}

// win_ht 20: every eighth row (0 and 8) of each column is examined. Column 0 is wild on the
// other rows, column 1's only pair (column 0's row 8 against its row 0) swings: column 0 is kept.
TEST(VectorSelectionTest, DecimatesEveryEighthRowAndCopiesBothFrames) {
  constexpr int kWinHt = 20;
  std::vector<std::int64_t> cur(kWinHt * 2);
  std::vector<std::int64_t> prev(kWinHt * 2);
  for (int r = 0; r < kWinHt; ++r) {
    cur[r * 2 + 0] = (r % 2 == 0) ? 100000 : -100000;
    cur[r * 2 + 1] = 500500;
    prev[r * 2 + 0] = (std::int64_t{1} << 40) + r;  // only the low 32 bits are used
    prev[r * 2 + 1] = 77;
  }
  cur[0] = 1000;
  cur[8 * 2] = 2000;
  cur[1] = 500000;
  cur[8 * 2 + 1] = 501000;
  std::vector<std::int32_t> out_prev(kWinHt, -7);
  std::vector<std::int32_t> out_cur(kWinHt, -7);
  vector_selection(prev.data(), cur.data(), 1, 2, 0, kWinHt, nullptr, out_prev.data(),
                   out_cur.data());
  EXPECT_EQ(out_cur[0], 1000);
  EXPECT_EQ(out_cur[1], -100000);
  EXPECT_EQ(out_cur[8], 2000);
  EXPECT_EQ(out_cur[19], -100000);
  EXPECT_EQ(out_prev[0], 0);
  EXPECT_EQ(out_prev[19], 19);
}

// Below eight rows nothing is examined and the default column 1 is taken; on a one-column grid
// its last row lies past the grid's end and reads 0.
TEST(VectorSelectionTest, DefaultColumnPastTheGridReadsZero) {
  std::vector<std::int64_t> cur = {11, 12, 13, 14};
  std::vector<std::int64_t> prev = {21, 22, 23, 24};
  std::vector<std::int32_t> out_prev(4, -7);
  std::vector<std::int32_t> out_cur(4, -7);
  vector_selection(prev.data(), cur.data(), 1, 1, 0, 4, nullptr, out_prev.data(), out_cur.data());
  EXPECT_EQ(out_cur, (std::vector<std::int32_t>{12, 13, 14, 0}));
  EXPECT_EQ(out_prev, (std::vector<std::int32_t>{22, 23, 24, 0}));
}

// Each band chooses its own column from the current frame.
TEST(VectorSelectionTest, ChoosesPerBand) {
  constexpr int kWinHt = 8;  // one decimated row: all columns quiet, the brightest wins
  std::vector<std::int64_t> cur(2 * kWinHt * 3);
  std::vector<std::int64_t> prev(2 * kWinHt * 3);
  for (int b = 0; b < 2; ++b) {
    for (int r = 0; r < kWinHt; ++r) {
      for (int c = 0; c < 3; ++c) {
        const int at = (b * kWinHt + r) * 3 + c;
        cur[at] = (b == 0 ? c == 2 : c == 0) ? 9000 : 100;
        prev[at] = 10 * c + b;
      }
    }
  }
  std::vector<std::int32_t> out_prev(2 * kWinHt);
  std::vector<std::int32_t> out_cur(2 * kWinHt);
  vector_selection(prev.data(), cur.data(), 2, 3, 0, kWinHt, nullptr, out_prev.data(),
                   out_cur.data());
  EXPECT_EQ(out_prev[0], 20);
  EXPECT_EQ(out_prev[kWinHt - 1], 20);
  EXPECT_EQ(out_prev[kWinHt], 1);
  EXPECT_EQ(out_cur[kWinHt], 9000);
}

}  // namespace
