// SPDX-License-Identifier: Apache-2.0
// Shift search: peak masks, the coarse search's filter, range and tie rules, the fine search's
// candidates, log-ratio vectors and cost window.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "standard/standard.h"

namespace {

constexpr std::int32_t kLen = 200;      // working samples
constexpr std::int32_t kFullLen = 400;  // the same window at statistics resolution

// Jagged scene content: no period shorter than the window, so only the true shift matches.
std::int32_t Scene(std::int32_t i) { return 200000 + 5000 * ((i * i * 7 + i * 13) % 97); }

struct Vectors {
  std::vector<std::int32_t> prev, cur;
  std::vector<std::int64_t> prev_mask, cur_mask;
};

// The current frame shows the previous one's content `shift` samples further down, plus a small
// ripple so that no shift matches perfectly.
Vectors Shifted(std::int32_t shift, std::int32_t offset = 0) {
  Vectors v;
  for (std::int32_t i = 0; i < kLen; ++i) {
    v.prev.push_back(offset + Scene(i + 100));
    v.cur.push_back(offset + Scene(i + 100 - shift) + (offset == 0 ? (i % 5) * 30 : 0));
  }
  v.prev_mask.assign(kLen, 1);
  v.cur_mask.assign(kLen, 1);
  return v;
}

std::int32_t Coarse(Vectors& v, std::int32_t& unreliable, std::int32_t range = 32,
                    std::int32_t fullLen = kFullLen) {
  return exhaust_search(v.cur.data(), v.prev.data(), v.cur_mask.data(), v.prev_mask.data(), kLen,
                        range, 1, 2, fullLen, unreliable);
}

// ---- find_peaks ----

TEST(FindPeaks, TooShortClearsMaskAndFindsNothing) {
  std::int32_t grad[2] = {500, 900};
  std::int64_t mask[2] = {7, 7};
  EXPECT_EQ(find_peaks(grad, 2, 84, mask), 0);
  EXPECT_EQ(mask[0], 0);
  EXPECT_EQ(mask[1], 0);
}

TEST(FindPeaks, PeakMarksTenBeforeAndNineAfter) {
  std::vector<std::int32_t> grad(30, 0);
  grad[3] = -85;  // magnitude counts
  std::vector<std::int64_t> mask(30, 7);
  EXPECT_EQ(find_peaks(grad.data(), 30, 84, mask.data()), 1);
  for (int j = 0; j < 30; ++j) EXPECT_EQ(mask[j], j <= 12 ? 1 : 0) << j;

  std::fill(grad.begin(), grad.end(), 0);
  grad[25] = 200;
  EXPECT_EQ(find_peaks(grad.data(), 30, 84, mask.data()), 1);
  for (int j = 0; j < 30; ++j) EXPECT_EQ(mask[j], j >= 15 ? 1 : 0) << j;
}

TEST(FindPeaks, StrictComparisonsAndEndsExcluded) {
  // 84 is not above the threshold; |100| equals |-100| so neither is a peak; the first and last
  // samples are never peaks; 90 at 20 and 95 at 24 are, and their neighbourhoods merge.
  std::vector<std::int32_t> grad(40, 0);
  grad[0] = 1000;
  grad[5] = 84;
  grad[10] = 100;
  grad[11] = -100;
  grad[20] = 90;
  grad[24] = -95;
  grad[39] = 1000;
  std::vector<std::int64_t> mask(40, 0);
  EXPECT_EQ(find_peaks(grad.data(), 40, 84, mask.data()), 2);
  for (int j = 0; j < 40; ++j) EXPECT_EQ(mask[j], j >= 10 && j < 34 ? 1 : 0) << j;
}

// ---- exhaust_search ----

TEST(CoarseSearch, LowPassIsRoundedAndMirrorsTheEdgeSample) {
  std::vector<std::int32_t> cur(28, 0), prev(28, 0);
  std::vector<std::int64_t> mask(28, 1);
  cur[0] = 256;     // centre tap 44 plus its mirror under tap 40: 84
  cur[12] = -1000;  // -171.875 rounds to -172
  cur[27] = 256;    // right mirror: taps 20 and 10 at output 24
  prev[3] = -32;    // output 8 sees tap 4: -128 / 256, exactly half, rounds to -1
  prev[21] = 32;    // output 16 sees tap 4: 128 / 256 rounds to 1; output 24: 2.5 to 3
  std::int32_t unreliable = -1;
  exhaust_search(cur.data(), prev.data(), mask.data(), mask.data(), 28, 32, 1, 2, 40, unreliable);
  const std::int32_t cur_down[7] = {84, 14, -39, -172, -39, 0, 30};
  const std::int32_t prev_down[7] = {-4, -5, -1, 0, 1, 5, 3};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(cvector_current_down_working_memory[i], cur_down[i]) << i;
    EXPECT_EQ(cvector_prev_down_working_memory[i], prev_down[i]) << i;
  }
  EXPECT_EQ(unreliable, 1);  // a 40-sample window leaves no room to score
}

TEST(CoarseSearch, FindsTheShiftOfTheContent) {
  Vectors v = Shifted(12);
  std::int32_t unreliable = -1;
  EXPECT_EQ(Coarse(v, unreliable), 12);
  EXPECT_EQ(unreliable, 0);
}

TEST(CoarseSearch, ReachesOneStepFurtherOnTheNegativeSide) {
  std::int32_t unreliable = -1;
  Vectors down = Shifted(-36);
  EXPECT_EQ(Coarse(down, unreliable), -36);
  EXPECT_EQ(unreliable, 0);
  Vectors up = Shifted(36);
  EXPECT_EQ(Coarse(up, unreliable), 32);
}

TEST(CoarseSearch, MorePairsBeatALowerCost) {
  // Current mask valid from working sample 80, previous below 120: shift 32 has 18 valid pairs,
  // the true shift 12 only 13 (with a far lower cost).
  Vectors v = Shifted(12);
  for (std::int32_t i = 0; i < kLen; ++i) {
    v.cur_mask[i] = i >= 80 ? 1 : 0;
    v.prev_mask[i] = i < 120 ? 1 : 2;  // only exactly 1 is valid
  }
  std::int32_t unreliable = -1;
  EXPECT_EQ(Coarse(v, unreliable), 32);
  EXPECT_EQ(unreliable, 0);
}

TEST(CoarseSearch, ExactTiesKeepTheMostNegativeShift) {
  Vectors v = Shifted(0, 5000);
  std::fill(v.cur.begin(), v.cur.end(), 5000);
  std::fill(v.prev.begin(), v.prev.end(), 5000);
  std::int32_t unreliable = -1;
  EXPECT_EQ(Coarse(v, unreliable), -36);
  EXPECT_EQ(unreliable, 1);  // cost 0 is taken as flat data
}

TEST(CoarseSearch, PerfectMatchIsUnreliable) {
  Vectors v = Shifted(0);
  v.cur = v.prev;
  std::int32_t unreliable = -1;
  EXPECT_EQ(Coarse(v, unreliable), 0);
  EXPECT_EQ(unreliable, 1);
}

TEST(CoarseSearch, NoValidPairOrNoRoomGivesZeroUnreliable) {
  std::int32_t unreliable = -1;
  Vectors masked = Shifted(12);
  std::fill(masked.prev_mask.begin(), masked.prev_mask.end(), 0);
  EXPECT_EQ(Coarse(masked, unreliable), 0);
  EXPECT_EQ(unreliable, 1);

  // fullLen 106: U = ((106 - 2 - 64) >> 3) - 1 = 4, not above the margin 5.
  Vectors short_window = Shifted(12);
  unreliable = -1;
  EXPECT_EQ(Coarse(short_window, unreliable, 32, 106), 0);
  EXPECT_EQ(unreliable, 1);

  Vectors negative_range = Shifted(12);
  unreliable = -1;
  EXPECT_EQ(Coarse(negative_range, unreliable, -5), 0);
  EXPECT_EQ(unreliable, 1);
}

TEST(CoarseSearch, OversizedWindowIsRefused) {
  std::vector<std::int32_t> big(1001, 1000);
  std::vector<std::int64_t> mask(1001, 1);
  std::int32_t unreliable = -1;
  EXPECT_EQ(exhaust_search(big.data(), big.data(), mask.data(), mask.data(), 1001, 32, 1, 2, 2002,
                           unreliable),
            0);
  EXPECT_EQ(unreliable, 1);
}

// ---- exhaust_search_fine ----

class FineSearch : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStdout();
    flicker_init(4000, 2000, 512, 240e6);  // g_valuMax 8388480
    testing::internal::GetCapturedStdout();
  }
  void TearDown() override { flicker_uninit(); }

  std::int32_t Fine(Vectors& v, std::int32_t coarse, std::int32_t preset = 0) {
    std::int32_t best = preset;
    exhaust_search_fine(v.cur.data(), v.prev.data(), v.cur_mask.data(), v.prev_mask.data(), kLen,
                        0, 1, 1, 2, kFullLen, coarse, best, cvector_out_test_ptr_array,
                        cvector_out_test_length_working_memory);
    return best;
  }
};

TEST_F(FineSearch, PicksTheTrueShiftAroundTheCoarseOne) {
  Vectors v = Shifted(12);
  EXPECT_EQ(Fine(v, 12), 3);  // candidates 9..15
  const std::int32_t lengths[7] = {96, 95, 95, 94, 94, 93, 93};
  for (int k = 0; k < 7; ++k) {
    EXPECT_EQ(cvector_out_test_length_working_memory[k], lengths[k]) << k;
    EXPECT_EQ(cvector_out_test_ptr_array[k], cvector_out_test_working_memory + 1000 * k);
  }
  const std::int32_t* best = cvector_out_test_ptr_array[3];
  const std::int32_t ratio[5] = {1, 1, 0, 1, 1};  // samples 0, 2, 4, 100, 186
  const std::int32_t at[5] = {0, 1, 2, 50, 93};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(best[at[i]], ratio[i]) << at[i];
}

TEST_F(FineSearch, NegativeCoarseShiftCandidatesAndLengths) {
  Vectors v = Shifted(-5);
  EXPECT_EQ(Fine(v, -5), 3);  // candidates -8..-2
  const std::int32_t lengths[7] = {96, 97, 97, 98, 98, 99, 99};
  for (int k = 0; k < 7; ++k) {
    EXPECT_EQ(cvector_out_test_length_working_memory[k], lengths[k]) << k;
  }
}

TEST_F(FineSearch, LogRatioClampsButCostDoesNot) {
  // Every sample lies above g_valuMax: all log ratios are 0, yet the raw cost finds shift 1.
  Vectors v = Shifted(1, 9000000);
  EXPECT_EQ(Fine(v, 0), 4);
  for (int k = 0; k < 7; ++k) {
    const std::int32_t* vec = cvector_out_test_ptr_array[k];
    for (int i = 0; i < cvector_out_test_length_working_memory[k]; ++i) ASSERT_EQ(vec[i], 0);
  }
}

TEST_F(FineSearch, CompandedRatioInterpolatesBetweenTableEntries) {
  std::vector<std::int32_t> cur = {4096, 8192, 6144, -5, 100000000};
  std::vector<std::int32_t> prev = {0, 4096, 8192, 0, 0};
  std::vector<std::int64_t> mask(5, 1);
  std::int32_t best = 9;
  // halfSpan 0: one candidate, the coarse shift itself; outShift 0 keeps every sample.
  exhaust_search_fine(cur.data(), prev.data(), mask.data(), mask.data(), 5, 0, 1, 0, 0, 10, 0,
                      best, cvector_out_test_ptr_array, cvector_out_test_length_working_memory);
  EXPECT_EQ(cvector_out_test_length_working_memory[0], 5);
  const std::int32_t expected[5] = {23691, 26417 - 23691, 25054 - 26417, 0, 62803};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(cvector_out_test_working_memory[i], expected[i]) << i;
  EXPECT_EQ(best, 9);  // no pair inside the cost window: the caller's index stays
}

TEST_F(FineSearch, ExactTiesKeepTheFirstCandidate) {
  Vectors v = Shifted(0);
  std::fill(v.cur.begin(), v.cur.end(), 5000);
  std::fill(v.prev.begin(), v.prev.end(), 5000);
  EXPECT_EQ(Fine(v, 0, 5), 0);
}

TEST_F(FineSearch, NoValidPairLeavesTheIndex) {
  Vectors v = Shifted(12);
  std::fill(v.cur_mask.begin(), v.cur_mask.end(), 0);
  EXPECT_EQ(Fine(v, 12, 5), 5);
}

}  // namespace
