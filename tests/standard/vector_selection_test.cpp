// SPDX-License-Identifier: Apache-2.0
// Column selection: swing counting with its shifted pairs, tie-breaks, the dark and quiet rules.
#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "standard/standard.h"

namespace {

using V = std::vector<std::int32_t>;

// The column chosen among ncols columns of len entries, back to back. Exactly sized: the address
// sanitizer sees any read before the first column.
std::int32_t Choose(std::int32_t len, std::int32_t ncols, std::int32_t min_mean, V cols) {
  return find_vector(cols.data(), len, ncols, 100, min_mean);
}

TEST(FindVector, ChoosesTheQuietestThenTheBrightestColumn) {
  // Column 0 swings -101 -> +101 (one swing); column 1 swings once too and is brighter.
  EXPECT_EQ(Choose(4, 2, 0, {0, -101, 101, 0, 1000, 500, 1500, 1000}), 1);
  // -100 -> +101 is not a swing (strict): column 0 is quiet and wins on its count.
  EXPECT_EQ(Choose(4, 2, 0, {0, -100, 101, -1, 1000, 500, 1500, 1000}), 0);
  // Column 0 starts at -500 after centring: the guard word 0 before the buffer makes no
  // swing of it, so column 0 (no swing) beats the brighter column 1 (one swing).
  EXPECT_EQ(Choose(4, 2, 0, {-500, 0, 500, 0, 1000, 500, 1500, 1000}), 0);
  // Column 1's first pair borrows column 0's last centred entry (-500 -> +500).
  EXPECT_EQ(Choose(4, 2, 0, {250, 250, 0, -500, 1500, 1000, 1000, 500}), 0);
  // Column 1 ends on a +500 -> -500 swing, which is never examined.
  EXPECT_EQ(Choose(4, 2, 0, {1000, 500, 1500, 1000, 2000, 2000, 2500, 1500}), 1);
  // Equal counts and means: the first; equal counts: the larger mean.
  EXPECT_EQ(Choose(4, 2, 0, {1000, 500, 1500, 1000, 1000, 500, 1500, 1000}), 0);
  EXPECT_EQ(Choose(4, 2, 0, {1000, 500, 1500, 1000, 3000, 2500, 3500, 3000}), 1);
  // A mean of exactly 358400 is not dark: the swing counts decide (one against two).
  EXPECT_EQ(
      Choose(5, 2, 358400, {358400, 357900, 358900, 357900, 358900, 100, -400, 600, 100, 100}), 1);
  // One below: every column is dark and the brightest is taken.
  EXPECT_EQ(
      Choose(5, 2, 358400, {358399, 357899, 358899, 357899, 358899, 100, -400, 600, 100, 100}), 0);
  // All quiet: the first strictly largest mean.
  EXPECT_EQ(Choose(2, 3, 0, {5, 5, 9, 9, 9, 9}), 1);
  // Quiet and no mean above 0: the default column 1, even for a single column.
  EXPECT_EQ(Choose(4, 1, 358400, {0, 0, 0, 0}), 1);
  EXPECT_EQ(Choose(2, 1, 358400, {400000, 400000}), 0);
  EXPECT_EQ(Choose(0, 0, 358400, {}), 1);
  // Columns are centred in place.
  V centred = {10, 20, 30, 40, 5, 7};
  find_vector(centred.data(), 3, 2, 100, 358400);
  EXPECT_EQ(centred, (V{-10, 0, 10, 23, -12, -10}));
}

V Select(const std::vector<std::int64_t>& prev, const std::vector<std::int64_t>& cur,
         std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_ht, V& out_prev) {
  V out_cur(n_win_h * win_ht, -7);
  out_prev.assign(n_win_h * win_ht, -7);
  vector_selection(prev.data(), cur.data(), n_win_h, n_win_w, 0, win_ht, nullptr, out_prev.data(),
                   out_cur.data());
  return out_cur;
}

// win_ht 20: rows 0 and 8 of each column are examined. Column 0 is wild on the other rows,
// column 1's only pair (column 0's row 8 against its row 0) swings: column 0 is kept.
TEST(VectorSelection, DecimatesEveryEighthRowAndCopiesBothFrames) {
  std::vector<std::int64_t> cur(40);
  std::vector<std::int64_t> prev(40);
  for (int r = 0; r < 20; ++r) {
    cur[r * 2] = r == 0 ? 1000 : r == 8 ? 2000 : r % 2 == 0 ? 100000 : -100000;
    cur[r * 2 + 1] = r == 0 ? 500000 : r == 8 ? 501000 : 500500;
    prev[r * 2] = (std::int64_t{1} << 40) + r;  // only the low 32 bits are used
  }
  V out_prev;
  const V out_cur = Select(prev, cur, 1, 2, 20, out_prev);
  EXPECT_EQ((V{out_cur[0], out_cur[1], out_cur[8], out_cur[19]}),
            (V{1000, -100000, 2000, -100000}));
  EXPECT_EQ((V{out_prev[0], out_prev[19]}), (V{0, 19}));
}

// Each band chooses its own column; below eight rows nothing is examined and the default
// column 1 is taken, whose last row on a one-column grid lies past the grid's end and reads 0.
TEST(VectorSelection, ChoosesPerBandAndReadsZeroPastTheGrid) {
  std::vector<std::int64_t> cur(2 * 8 * 3);
  std::vector<std::int64_t> prev(2 * 8 * 3);
  for (int at = 0; at < 48; ++at) {
    const int b = at / 24;
    const int c = at % 3;
    cur[at] = (b == 0 ? c == 2 : c == 0) ? 9000 : 100;  // one decimated row: the brightest wins
    prev[at] = 10 * c + b;
  }
  V out_prev;
  EXPECT_EQ(Select(prev, cur, 2, 3, 8, out_prev)[8], 9000);
  EXPECT_EQ((V{out_prev[0], out_prev[7], out_prev[8]}), (V{20, 20, 1}));
  EXPECT_EQ(Select({21, 22, 23, 24}, {11, 12, 13, 14}, 1, 1, 4, out_prev), (V{12, 13, 14, 0}));
  EXPECT_EQ(out_prev, (V{22, 23, 24, 0}));
}

}  // namespace
