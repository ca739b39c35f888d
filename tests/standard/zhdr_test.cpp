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

using kestrel_test::LibraryTest;

std::int64_t Pack(std::int64_t value, std::int64_t noise, std::int64_t saturation) {
  return value | (noise << 24) | (saturation << 36) | (std::int64_t{0x5a5a} << 48);
}

void ClearCounts() {
  for (std::int32_t* a : {ZHDR_LE_SAT_PREV, ZHDR_LE_SAT_CURR, ZHDR_SE_SAT_PREV, ZHDR_SE_SAT_CURR,
                          ZHDR_LE_NOI_PREV, ZHDR_LE_NOI_CURR, ZHDR_SE_NOI_PREV, ZHDR_SE_NOI_CURR}) {
    std::fill(a, a + 12, 0);
  }
}

std::string StopCapture() {
  std::fflush(stdout);
  return ::testing::internal::GetCapturedStdout();
}

class ZhdrTest : public LibraryTest {
 protected:
  void TearDown() override {
    ClearCounts();
    std::fill(ZHDR_LE_SE_SELECT, ZHDR_LE_SE_SELECT + 10, 0);
    LibraryTest::TearDown();
  }
};

TEST_F(ZhdrTest, WithoutZhdrOnlyMasksTo24Bits) {
  std::fill(ZHDR_SE_NOI_CURR, ZHDR_SE_NOI_CURR + 12, 99);
  std::vector<std::int64_t> prev = {Pack(0xABCDEF, 7, 9), Pack(1, 4095, 4095)};
  std::vector<std::int64_t> cur = {Pack(0x123456, 1, 1), -1};
  extract_ZHDR_INFO(prev.data(), cur.data(), 2, 1, 1);
  EXPECT_EQ(prev, (std::vector<std::int64_t>{0xABCDEF, 1}));
  EXPECT_EQ(cur, (std::vector<std::int64_t>{0x123456, 0xFFFFFF}));
  EXPECT_EQ(ZHDR_SE_NOI_CURR[0], 0);
}

// Four rows, two window rows of two, two columns; even rows are the long exposure.
TEST_F(ZhdrTest, CountsPerWindowAndExposureThenMasks) {
  is_zhdr = 1;
  std::vector<std::int64_t> prev(8);
  std::vector<std::int64_t> cur(8);
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 2; ++c) {
      prev[r * 2 + c] = Pack(100 + r, r + 1, 10 * (c + 1));
      cur[r * 2 + c] = Pack(200 + r, 2 * (r + 1), 100 + c);
    }
  }
  extract_ZHDR_INFO(prev.data(), cur.data(), 4, 2, 2);
  // Window (0, 1): LE is row 0, SE row 1; window (1, 0): LE row 2, SE row 3.
  EXPECT_EQ(ZHDR_LE_NOI_PREV[1], 1);
  EXPECT_EQ(ZHDR_SE_NOI_PREV[1], 2);
  EXPECT_EQ(ZHDR_LE_SAT_PREV[1], 20);
  EXPECT_EQ(ZHDR_LE_NOI_CURR[2], 6);
  EXPECT_EQ(ZHDR_SE_NOI_CURR[2], 8);
  EXPECT_EQ(ZHDR_SE_SAT_CURR[2], 100);
  EXPECT_EQ(ZHDR_LE_SAT_CURR[4], 0);
  EXPECT_EQ(prev[7], 103);
  EXPECT_EQ(cur[0], 200);

  zhdr_gle_first = 0;  // now even rows are the short exposure
  for (int r = 0; r < 4; ++r) prev[r * 2] = Pack(1, r + 1, 0);
  extract_ZHDR_INFO(prev.data(), cur.data(), 4, 2, 2);
  EXPECT_EQ(ZHDR_SE_NOI_PREV[0], 1);
  EXPECT_EQ(ZHDR_LE_NOI_PREV[0], 2);
}

// Window rows are the band height rounded down to even: with three rows a band, rows 4 and 5
// form a third window row.
TEST_F(ZhdrTest, OddBandHeightUsesEvenWindowRows) {
  is_zhdr = 1;
  std::vector<std::int64_t> prev(6);
  std::vector<std::int64_t> cur(6);
  for (int r = 0; r < 6; ++r) prev[r] = Pack(0, 1, 0);
  extract_ZHDR_INFO(prev.data(), cur.data(), 6, 1, 2);
  EXPECT_EQ(ZHDR_LE_NOI_PREV[0] + ZHDR_SE_NOI_PREV[0], 2);
  EXPECT_EQ(ZHDR_LE_NOI_PREV[2], 1);
  EXPECT_EQ(ZHDR_SE_NOI_PREV[2], 1);
}

struct FindCase {
  const char* name;
  std::vector<std::int32_t> seqs;
  std::vector<std::int8_t> flags;
  std::int32_t len;
  std::int32_t mean_thr;
  std::int32_t expected;
};

class FindVectorZhdrTest : public ::testing::TestWithParam<FindCase> {};

TEST_P(FindVectorZhdrTest, ChoosesCandidate) {
  const FindCase& c = GetParam();
  std::vector<std::int32_t> seqs = c.seqs;  // exactly sized: no read before the first value
  std::vector<std::int8_t> flags = c.flags;
  EXPECT_EQ(find_vector_zHDR(seqs.data(), c.len, 10, c.mean_thr,
                             static_cast<std::int32_t>(flags.size()), flags.data()),
            c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FindVectorZhdrTest,
    ::testing::Values(
        // Crossings 1, 0, 1 with means above the threshold: the fewest crossings.
        FindCase{"fewest_crossings",
                 {100, 80, 120, 100, 50, 50, 50, 50, 200, 180, 220, 200},
                 {1, 1, 1},
                 4,
                 0,
                 1},
        // Both quiet (equal crossings): the brighter.
        FindCase{
            "equal_crossings_brighter", {100, 100, 100, 100, 150, 150, 150, 150}, {1, 1}, 4, 0, 1},
        // Candidate 0 starts at -20 after centring: the guard word 0 before the buffer makes no
        // crossing of it, so it keeps 0 crossings against candidate 1's one.
        FindCase{"guard_word_is_zero", {80, 100, 120, 100, 300, 280, 320, 300}, {1, 1}, 4, 0, 0},
        // Crossings compare with the next index even when unflagged (count 0): candidate 1 (0)
        // equals unflagged 2, so the rule of the largest mean picks 3 over the quieter 1.
        FindCase{"same_crossings_with_unflagged_next",
                 {0, 0, 0, 0, 50, 50, 50, 50, 0, 0, 0, 0, 200, 180, 220, 200},
                 {0, 1, 0, 1},
                 4,
                 0,
                 3},
        // Every flagged mean below the bound: the brightest, however many crossings.
        FindCase{"small_means_brightest", {100, 80, 120, 100, 50, 50, 50, 50}, {1, 1}, 4, 1000, 0},
        // No flagged mean above 0: candidate 2.
        FindCase{"no_positive_mean", {0, 0, -5, -5, 9, 9}, {1, 1, 0}, 2, 1000, 2}),
    [](const ::testing::TestParamInfo<FindCase>& info) { return info.param.name; });

// One band of 16 rows and two columns, window width 50: the threshold is 16 x 50 / 80 = 10.
class ZhdrSelectionTest : public ZhdrTest {
 protected:
  static constexpr int kWinHt = 16;
  void SetUp() override {
    ZhdrTest::SetUp();
    for (int i = 0; i < kWinHt * 2; ++i) {
      cur_.push_back(1000 + i);
      prev_.push_back(5000 + i);
    }
  }
  std::string Select(int n_win_h = 1) {
    ::testing::internal::CaptureStdout();
    vector_selection_zHDR(prev_.data(), cur_.data(), n_win_h, 2, 50, kWinHt, out_prev_, out_cur_);
    return StopCapture();
  }
  std::vector<std::int64_t> cur_;
  std::vector<std::int64_t> prev_;
  std::int32_t out_prev_[2 * kWinHt] = {};
  std::int32_t out_cur_[2 * kWinHt] = {};
};

TEST_F(ZhdrSelectionTest, CountAtThresholdDisqualifiesAndSelection3IsColumn1OddRows) {
  std::fill(ZHDR_LE_SAT_PREV, ZHDR_LE_SAT_PREV + 2, 10);
  ZHDR_SE_NOI_CURR[0] = 10;
  ZHDR_SE_NOI_CURR[1] = 9;
  EXPECT_EQ(Select(), "zHDR_vector_selection: 3 \n");
  EXPECT_EQ(ZHDR_LE_SE_SELECT[0], 1);
  EXPECT_EQ(out_cur_[0], 1001);
  EXPECT_EQ(out_cur_[15], 1031);
  EXPECT_EQ(out_prev_[15], 5031);
}

TEST_F(ZhdrSelectionTest, NoneFlaggedTakesSmallestValue) {
  std::fill(ZHDR_LE_NOI_PREV, ZHDR_LE_NOI_PREV + 2, 10);
  std::fill(ZHDR_SE_NOI_PREV, ZHDR_SE_NOI_PREV + 2, 10);
  ZHDR_LE_SAT_CURR[0] = 30;  // candidate 0: max(10, 30)
  ZHDR_LE_SAT_CURR[1] = 20;  // candidate 2: 20
  ZHDR_SE_SAT_PREV[0] = -5;  // candidate 1: max(5, 0)
  ZHDR_SE_SAT_CURR[1] = 7;   // candidate 3: 10 + 0 against 7
  EXPECT_EQ(Select(), "zHDR_vector_selection: 1 \n");
  zhdr_se_small = 1;  // only the long exposure (even rows) may be chosen
  EXPECT_EQ(Select(), "zHDR_vector_selection: 2 \n");
  EXPECT_EQ(ZHDR_LE_SE_SELECT[0], 0);
  EXPECT_EQ(out_cur_[1], 1003);
}

TEST_F(ZhdrSelectionTest, SeveralFlaggedUseTheSequencesAndNothingUsableCarriesOver) {
  // Band 0: all four candidates flagged and quiet, means below the bound: the brightest, odd rows
  // of column 1 (rows 1 and 9).
  cur_[1 * 2 + 1] = 900000;
  cur_[9 * 2 + 1] = 900000;
  // Band 1: nothing flagged and no value below 2^30: band 0's choice stays.
  for (int i = 0; i < kWinHt * 2; ++i) {
    cur_.push_back(1);
    prev_.push_back(2);
  }
  for (int w = 2; w < 4; ++w) {
    ZHDR_LE_SAT_PREV[w] = 1 << 30;
    ZHDR_SE_SAT_PREV[w] = 1 << 30;
  }
  EXPECT_EQ(Select(2), "zHDR_vector_selection: 3 3 \n");
  EXPECT_EQ(ZHDR_LE_SE_SELECT[1], 1);
  EXPECT_EQ(out_cur_[kWinHt], 1);
}

}  // namespace
