// SPDX-License-Identifier: Apache-2.0
// zHDR statistics: unpacking, per-window counts, the candidate flags and the selection rules.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using W = std::vector<std::int64_t>;
using V = std::vector<std::int32_t>;

std::int64_t Pack(std::int64_t value, std::int64_t noise, std::int64_t saturation) {
  return value | (noise << 24) | (saturation << 36) | (std::int64_t{0x5a5a} << 48);
}

class ZhdrTest : public kestrel_test::LibraryTest {
 protected:
  void TearDown() override {
    W none(12, 0);  // extract_ZHDR_INFO clears every count first
    extract_ZHDR_INFO(none.data(), none.data(), 0, 0, 0);
    std::fill(ZHDR_LE_SE_SELECT, ZHDR_LE_SE_SELECT + 10, 0);
    LibraryTest::TearDown();
  }
};

// Without zHDR the words are only masked to 24 bits; with it, counts go per window row and
// exposure (even rows are the long exposure) before the masking.
TEST_F(ZhdrTest, ExtractCountsPerWindowAndExposureThenMasks) {
  ZHDR_SE_NOI_CURR[0] = 99;
  W prev = {Pack(0xABCDEF, 7, 9), Pack(1, 4095, 4095)};
  W cur = {Pack(0x123456, 1, 1), -1};
  extract_ZHDR_INFO(prev.data(), cur.data(), 2, 1, 1);
  EXPECT_EQ(prev, (W{0xABCDEF, 1}));
  EXPECT_EQ(cur, (W{0x123456, 0xFFFFFF}));
  EXPECT_EQ(ZHDR_SE_NOI_CURR[0], 0);

  // Four rows, two window rows of two, two columns.
  is_zhdr = 1;
  prev.resize(8);
  cur.resize(8);
  for (int at = 0; at < 8; ++at) {
    prev[at] = Pack(100 + at / 2, at / 2 + 1, 10 * (at % 2 + 1));
    cur[at] = Pack(200 + at / 2, 2 * (at / 2 + 1), 100 + at % 2);
  }
  extract_ZHDR_INFO(prev.data(), cur.data(), 4, 2, 2);
  // Window (0, 1): LE is row 0, SE row 1; window (1, 0): LE row 2, SE row 3.
  EXPECT_EQ((V{ZHDR_LE_NOI_PREV[1], ZHDR_SE_NOI_PREV[1], ZHDR_LE_SAT_PREV[1]}), (V{1, 2, 20}));
  EXPECT_EQ((V{ZHDR_LE_NOI_CURR[2], ZHDR_SE_NOI_CURR[2], ZHDR_SE_SAT_CURR[2]}), (V{6, 8, 100}));
  EXPECT_EQ((W{ZHDR_LE_SAT_CURR[4], prev[7], cur[0]}), (W{0, 103, 200}));
  zhdr_gle_first = 0;  // now even rows are the short exposure
  for (int r = 0; r < 4; ++r) prev[r * 2] = Pack(1, r + 1, 0);
  extract_ZHDR_INFO(prev.data(), cur.data(), 4, 2, 2);
  EXPECT_EQ((V{ZHDR_SE_NOI_PREV[0], ZHDR_LE_NOI_PREV[0]}), (V{1, 2}));

  // Window rows are the band height rounded down to even: with three rows a band, rows 4 and 5
  // form a third window row.
  prev.assign(6, Pack(0, 1, 0));
  extract_ZHDR_INFO(prev.data(), cur.data(), 6, 1, 2);
  EXPECT_EQ((V{ZHDR_SE_NOI_PREV[0], ZHDR_LE_NOI_PREV[0], ZHDR_SE_NOI_PREV[2], ZHDR_LE_NOI_PREV[2]}),
            (V{1, 1, 1, 1}));
}

// Two separate grids are counted in one pass over row pairs (up to six columns) or column by
// column (wider); the same grid given twice goes word by word. All three must count alike: a
// shared word is read for both frames before it is rewritten. The last window row of each grid
// has an odd number of rows.
V AllCounts() {
  V all;
  for (const std::int32_t* counts :
       {ZHDR_LE_SAT_PREV, ZHDR_LE_SAT_CURR, ZHDR_SE_SAT_PREV, ZHDR_SE_SAT_CURR, ZHDR_LE_NOI_PREV,
        ZHDR_LE_NOI_CURR, ZHDR_SE_NOI_PREV, ZHDR_SE_NOI_CURR}) {
    all.insert(all.end(), counts, counts + 12);
  }
  return all;
}

TEST_F(ZhdrTest, SeparateAndSharedGridsCountAlike) {
  is_zhdr = 1;
  struct Case {
    std::int32_t cols, rows, groups;
  };
  for (const Case c : {Case{3, 19, 3}, Case{8, 5, 1}, Case{4, 1, 1}}) {
    W grid(c.rows * c.cols);
    std::uint64_t seed = 7;
    for (std::int64_t& v : grid) {
      seed = seed * 6364136223846793005ull + 1442695040888963407ull;
      v = static_cast<std::int64_t>(seed >> 4);
    }
    W prev = grid;
    W cur = grid;
    extract_ZHDR_INFO(prev.data(), cur.data(), c.rows, c.cols, c.groups);
    const V separate = AllCounts();
    EXPECT_EQ(prev, cur);
    EXPECT_EQ(V(separate.begin(), separate.begin() + 12),
              V(separate.begin() + 12, separate.begin() + 24));
    extract_ZHDR_INFO(grid.data(), grid.data(), c.rows, c.cols, c.groups);
    EXPECT_EQ(grid, cur) << c.cols;
    EXPECT_EQ(AllCounts(), separate) << c.cols;
    // The first window, and the last window row's single row, are counted.
    EXPECT_GT(separate[0] + separate[2 * 12], 0);
    if (c.rows > 1) {
      EXPECT_GT(separate[11] + separate[2 * 12 + 11], 0);
    }
    EXPECT_EQ(grid[0], grid[0] & 0xFFFFFF);
  }
}

// Exactly sized sequences: no read before the first value.
// count < 0: every flag is a candidate.
std::int32_t Choose(std::int32_t len, std::int32_t mean_thr, std::vector<std::int8_t> flags, V seqs,
                    std::int32_t count = -1) {
  return find_vector_zHDR(seqs.data(), len, 10, mean_thr,
                          count < 0 ? static_cast<std::int32_t>(flags.size()) : count,
                          flags.data());
}

TEST(FindVectorZhdr, FewestCrossingsUnlessAllQuietOrDark) {
  // Crossings 1, 0, 1 with means above the threshold: the fewest crossings.
  EXPECT_EQ(Choose(4, 0, {1, 1, 1}, {100, 80, 120, 100, 50, 50, 50, 50, 200, 180, 220, 200}), 1);
  // Flagged 0 and 2 tie on one crossing: the brighter; a flag past the count is no candidate.
  EXPECT_EQ(Choose(4, 0, {1, 0, 1, 1}, {100, 80, 120, 100, 50, 50, 50, 50, 200, 180, 220, 200}, 3),
            2);
  // Equal crossings: the brighter.
  EXPECT_EQ(Choose(4, 0, {1, 1}, {100, 100, 100, 100, 150, 150, 150, 150}), 1);
  // Candidate 0 starts at -20 after centring: the guard word 0 before the buffer makes no
  // crossing of it, so it keeps 0 crossings against candidate 1's one.
  EXPECT_EQ(Choose(4, 0, {1, 1}, {80, 100, 120, 100, 300, 280, 320, 300}), 0);
  // Crossings compare with the next index even when unflagged (count 0): candidate 1 (0) equals
  // unflagged 2, so the rule of the largest mean picks 3 over the quieter 1.
  EXPECT_EQ(
      Choose(4, 0, {0, 1, 0, 1}, {0, 0, 0, 0, 50, 50, 50, 50, 0, 0, 0, 0, 200, 180, 220, 200}), 3);
  // Every flagged mean below the bound: the brightest, however many crossings.
  EXPECT_EQ(Choose(4, 1000, {1, 1}, {100, 80, 120, 100, 50, 50, 50, 50}), 0);
  // No flagged mean above 0: candidate 2.
  EXPECT_EQ(Choose(2, 1000, {1, 1, 0}, {0, 0, -5, -5, 9, 9}), 2);
  // The counters' 24 candidates are chosen among; 25 fall back to candidate 2.
  V ramp(25);
  for (int k = 0; k < 25; ++k) ramp[k] = 100 + k;
  EXPECT_EQ(Choose(1, 1000, std::vector<std::int8_t>(24, 1), V(ramp.begin(), ramp.end() - 1)), 23);
  EXPECT_EQ(Choose(1, 1000, std::vector<std::int8_t>(25, 1), ramp), 2);
}

// Bands of 16 rows and two columns, window width 50: the threshold is 16 x 50 / 80 = 10. The
// previous frame's words are the current ones plus 4000. Returns the standard-output trace.
V out_cur;
V out_prev;
std::string Select(const W& cur, std::int32_t n_win_h) {
  W prev = cur;
  for (std::int64_t& v : prev) v += 4000;
  out_cur.assign(cur.size() / 2, 0);
  out_prev.assign(cur.size() / 2, 0);
  testing::internal::CaptureStdout();
  vector_selection_zHDR(prev.data(), cur.data(), n_win_h, 2, 50, 16, out_prev.data(),
                        out_cur.data());
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

W Ramp() {
  W v(32);
  for (int i = 0; i < 32; ++i) v[i] = 1000 + i;
  return v;
}

using ZhdrSelectionTest = ZhdrTest;

TEST_F(ZhdrSelectionTest, CountAtThresholdDisqualifiesAndSelection3IsColumn1OddRows) {
  ZHDR_LE_SAT_PREV[0] = ZHDR_LE_SAT_PREV[1] = 10;
  ZHDR_SE_NOI_CURR[0] = 10;
  ZHDR_SE_NOI_CURR[1] = 9;
  ZHDR_SE_SAT_CURR[1] = 9;  // the only flag, though its value 18 is the largest of the four
  EXPECT_EQ(Select(Ramp(), 1), "zHDR_vector_selection: 3 \n");
  EXPECT_EQ(ZHDR_LE_SE_SELECT[0], 1);
  EXPECT_EQ((V{out_cur[0], out_cur[15], out_prev[15]}), (V{1001, 1031, 5031}));
}

// Every one of the eight counts disqualifies at exactly t: counter X at 10 in both columns of its
// exposure, the same counter of the other exposure at 10 in column 0, so the other exposure's
// column 1 is the only candidate left. Column 0 is the brightest: had a count of t passed, the
// sequences would have chosen it.
struct CountAtThreshold {
  const char* name;
  std::int32_t* x;
  std::int32_t* y;
  const char* trace;
};

class ZhdrCountTest : public ZhdrTest, public testing::WithParamInterface<CountAtThreshold> {};

TEST_P(ZhdrCountTest, CountOfExactlyTDisqualifies) {
  const CountAtThreshold& c = GetParam();
  c.x[0] = c.x[1] = 10;
  c.y[0] = 10;
  W cur = Ramp();
  for (int r = 0; r < 16; ++r) cur[r * 2] = 900000;
  EXPECT_EQ(Select(cur, 1), c.trace);
}

INSTANTIATE_TEST_SUITE_P(
    EachCount, ZhdrCountTest,
    testing::Values(CountAtThreshold{"LeSatPrev", ZHDR_LE_SAT_PREV, ZHDR_SE_SAT_PREV,
                                     "zHDR_vector_selection: 3 \n"},
                    CountAtThreshold{"LeSatCurr", ZHDR_LE_SAT_CURR, ZHDR_SE_SAT_CURR,
                                     "zHDR_vector_selection: 3 \n"},
                    CountAtThreshold{"LeNoiPrev", ZHDR_LE_NOI_PREV, ZHDR_SE_NOI_PREV,
                                     "zHDR_vector_selection: 3 \n"},
                    CountAtThreshold{"LeNoiCurr", ZHDR_LE_NOI_CURR, ZHDR_SE_NOI_CURR,
                                     "zHDR_vector_selection: 3 \n"},
                    CountAtThreshold{"SeSatPrev", ZHDR_SE_SAT_PREV, ZHDR_LE_SAT_PREV,
                                     "zHDR_vector_selection: 2 \n"},
                    CountAtThreshold{"SeSatCurr", ZHDR_SE_SAT_CURR, ZHDR_LE_SAT_CURR,
                                     "zHDR_vector_selection: 2 \n"},
                    CountAtThreshold{"SeNoiPrev", ZHDR_SE_NOI_PREV, ZHDR_LE_NOI_PREV,
                                     "zHDR_vector_selection: 2 \n"},
                    CountAtThreshold{"SeNoiCurr", ZHDR_SE_NOI_CURR, ZHDR_LE_NOI_CURR,
                                     "zHDR_vector_selection: 2 \n"}),
    [](const testing::TestParamInfo<CountAtThreshold>& i) { return i.param.name; });

TEST_F(ZhdrSelectionTest, NoneFlaggedTakesSmallestValue) {
  ZHDR_LE_NOI_PREV[0] = ZHDR_LE_NOI_PREV[1] = ZHDR_SE_NOI_PREV[0] = ZHDR_SE_NOI_PREV[1] = 10;
  ZHDR_LE_SAT_CURR[0] = 30;  // candidate 0: max(10, 30)
  ZHDR_LE_SAT_CURR[1] = 20;  // candidate 2: 20
  ZHDR_SE_SAT_PREV[0] = -5;  // candidate 1: max(5, 0)
  ZHDR_SE_SAT_CURR[1] = 7;   // candidate 3: 10 + 0 against 7
  EXPECT_EQ(Select(Ramp(), 1), "zHDR_vector_selection: 1 \n");
  zhdr_se_small = 1;  // only the long exposure (even rows) may be chosen
  EXPECT_EQ(Select(Ramp(), 1), "zHDR_vector_selection: 2 \n");
  EXPECT_EQ(ZHDR_LE_SE_SELECT[0], 0);
  EXPECT_EQ(out_cur[1], 1003);
}

TEST_F(ZhdrSelectionTest, SeveralFlaggedUseTheSequencesAndNothingUsableCarriesOver) {
  // Band 0: all four candidates flagged and quiet, means below the bound: the brightest, odd rows
  // of column 1 (rows 1 and 9).
  W cur = Ramp();
  cur[1 * 2 + 1] = cur[9 * 2 + 1] = 900000;
  // Band 1: nothing flagged and no value below 2^30: band 0's choice stays.
  cur.resize(64, 1);
  ZHDR_LE_SAT_PREV[2] = ZHDR_LE_SAT_PREV[3] = ZHDR_SE_SAT_PREV[2] = ZHDR_SE_SAT_PREV[3] = 1 << 30;
  EXPECT_EQ(Select(cur, 2), "zHDR_vector_selection: 3 3 \n");
  EXPECT_EQ(ZHDR_LE_SE_SELECT[1], 1);
  EXPECT_EQ(out_cur[16], 1);
}

}  // namespace
