// SPDX-License-Identifier: Apache-2.0
// Shift search: peak masks, the coarse search's filter, range and tie rules, the fine search's
// candidates, log-ratio vectors and cost window.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <tuple>
#include <utility>
#include <vector>

#include "standard/standard.h"

namespace {

using V = std::vector<std::int32_t>;
using Mask = std::vector<std::int64_t>;

constexpr std::int32_t kLen = 200;      // working samples
constexpr std::int32_t kFullLen = 400;  // the same window at statistics resolution

// Jagged scene content: no period shorter than the window, so only the true shift matches.
std::int32_t Scene(std::int32_t i) {
  return 200000 + 5000 * ((i * i * 7 + i * 13) % 97);
}

struct Vectors {
  V prev, cur;
  Mask prev_mask = Mask(kLen, 1), cur_mask = Mask(kLen, 1);
};

// The current frame shows the previous one's content `shift` samples further down, plus a small
// ripple so that no shift matches perfectly (none when `offset` lifts the whole scene).
Vectors Shifted(std::int32_t shift, std::int32_t offset = 0) {
  Vectors v;
  for (std::int32_t i = 0; i < kLen; ++i) {
    v.prev.push_back(offset + Scene(i + 100));
    v.cur.push_back(offset + Scene(i + 100 - shift) + (offset == 0 ? (i % 5) * 30 : 0));
  }
  return v;
}

Vectors Constant() {
  Vectors v;
  v.prev = v.cur = V(kLen, 5000);
  return v;
}

// Coarse shift and unreliable flag.
std::pair<std::int32_t, std::int32_t> Coarse(Vectors v, std::int32_t range = 32,
                                             std::int32_t fullLen = kFullLen) {
  std::int32_t unreliable = -1;
  const std::int32_t len = static_cast<std::int32_t>(v.cur.size());
  const std::int32_t shift =
      exhaust_search(v.cur.data(), v.prev.data(), v.cur_mask.data(), v.prev_mask.data(), len, range,
                     1, 2, fullLen, unreliable);
  return {shift, unreliable};
}

V Sparse(std::int32_t n, std::initializer_list<std::pair<std::int32_t, std::int32_t>> at) {
  V v(n, 0);
  for (const auto& [i, x] : at) v[i] = x;
  return v;
}

TEST(FindPeaks, StrictPeaksMarkTenSamplesBeforeAndNineAfter) {
  std::int32_t two[2] = {500, 900};
  Mask mask(40, 7);
  EXPECT_EQ(find_peaks(two, 2, 84, mask.data()), 0);
  EXPECT_EQ(mask[0] + mask[1], 0);
  // Ends are never peaks; 84 is not above the threshold; |100| next to |-100| is not above its
  // neighbour; -85 at 3 and 90 at 33 are peaks.
  V grad = Sparse(40, {{0, 1000}, {3, -85}, {20, 84}, {26, 100}, {27, -100}, {33, 90}, {39, 1000}});
  EXPECT_EQ(find_peaks(grad.data(), 40, 84, mask.data()), 2);
  for (int j = 0; j < 40; ++j) EXPECT_EQ(mask[j], j <= 12 || j >= 23 ? 1 : 0) << j;
}

// Up to 1500 samples the peaks are tested in vector passes first; a longer direct call tests
// them one by one, with the same mask.
TEST(FindPeaks, LongGradientsMarkLikeShortOnes) {
  V grad(1600, 0);
  for (int i = 0; i < 1480; ++i) grad[i] = (i * 37) % 101 - 50;
  Mask short_mask(1500, 7);
  Mask long_mask(1600, 7);
  const std::int32_t peaks = find_peaks(grad.data(), 1500, 20, short_mask.data());
  EXPECT_EQ(find_peaks(grad.data(), 1600, 20, long_mask.data()), peaks);
  EXPECT_GT(peaks, 100);
  EXPECT_EQ(Mask(long_mask.begin(), long_mask.begin() + 1500), short_mask);
  EXPECT_EQ(Mask(long_mask.begin() + 1500, long_mask.end()), Mask(100, 0));
}

TEST(CoarseSearch, LowPassIsRoundedAndMirrorsTheEdgeSample) {
  // Current: 256 at 0 meets the centre tap 44 and its mirror under tap 40 (84); -1000 at 12
  // gives -171.875, rounded to -172; 256 at 27 reaches output 24 through taps 20 and 10 of the
  // right mirror. Previous: -32 at 3 gives -128 / 256 at output 8, exactly half, rounded to -1;
  // 32 at 21 gives 1 at output 16 and 2.5, rounded to 3, at output 24.
  Vectors v{Sparse(28, {{3, -32}, {21, 32}}), Sparse(28, {{0, 256}, {12, -1000}, {27, 256}}),
            Mask(28, 1), Mask(28, 1)};
  // The widest range, 2000, is still searched, but a 40-sample window leaves no room to score.
  EXPECT_EQ(Coarse(v, 2000, 40), std::pair(0, 1));
  EXPECT_EQ(V(cvector_current_down_working_memory, cvector_current_down_working_memory + 7),
            (V{84, 14, -39, -172, -39, 0, 30}));
  EXPECT_EQ(V(cvector_prev_down_working_memory, cvector_prev_down_working_memory + 7),
            (V{-4, -5, -1, 0, 1, 5, 3}));
  // Statistics up to 2^24 - 1, where the Q8 sums need all 32 unsigned bits: rows alternating
  // 2^24 - 1 and 2^23 meet the even and the odd taps (128 each) inside the window, and their
  // mean, 12582911.5, rounds up.
  for (std::int32_t i = 0; i < 28; ++i) v.cur[i] = i % 2 == 0 ? 16777215 : 8388608;
  Coarse(v, 2000, 40);
  EXPECT_EQ(V(cvector_current_down_working_memory + 2, cvector_current_down_working_memory + 6),
            V(4, 12582912));
}

TEST(CoarseSearch, ScansMinus36To32InStepsOf4) {
  EXPECT_EQ(Coarse(Shifted(12)), std::pair(12, 0));
  EXPECT_EQ(Coarse(Shifted(-36)), std::pair(-36, 0));
  EXPECT_EQ(Coarse(Shifted(36)), std::pair(32, 0));
}

// Decimated by 4 at a total shift of 3: the margin is 5 decimated samples and scoring starts
// after it. A single valid current sample at 5 (statistics row 20) pairs with nothing; at 6 it
// does.
TEST(CoarseSearch, ScoringStartsPastTheMargin) {
  for (const auto& [at, unreliable] : {std::pair{20, 1}, {24, 0}}) {
    Vectors v = Shifted(12);
    v.cur_mask.assign(kLen, 0);
    v.cur_mask[at] = 1;
    EXPECT_EQ(Coarse(v).second, unreliable) << at;
  }
}

TEST(CoarseSearch, MorePairsBeatALowerCost) {
  // Current mask valid from working sample 80, previous below 120: shift 32 has 18 valid pairs,
  // the true shift 12 only 13 (with a far lower cost).
  Vectors v = Shifted(12);
  for (std::int32_t i = 0; i < kLen; ++i) {
    v.cur_mask[i] = i >= 80 ? 1 : 0;
    v.prev_mask[i] = i < 120 ? 1 : 2;  // only exactly 1 is valid
  }
  EXPECT_EQ(Coarse(v), std::pair(32, 0));
}

TEST(CoarseSearch, TiesKeepTheMostNegativeShiftAndZeroCostOrNoPairIsUnreliable) {
  EXPECT_EQ(Coarse(Constant()), std::pair(-36, 1));
  Vectors same = Shifted(0);
  same.cur = same.prev;
  EXPECT_EQ(Coarse(same), std::pair(0, 1));
  // No valid pair, no room or no range: shift 0, unreliable.
  Vectors masked = Shifted(12);
  masked.prev_mask.assign(kLen, 0);
  Vectors big{V(1001, 1000), V(1001, 1000), Mask(1001, 1), Mask(1001, 1)};
  EXPECT_EQ(Coarse(masked), std::pair(0, 1));
  // fullLen 106: U = ((106 - 2 - 64) >> 3) - 1 = 4, not above the margin 5.
  EXPECT_EQ(Coarse(Shifted(12), 32, 106), std::pair(0, 1));
  EXPECT_EQ(Coarse(Shifted(12), -5), std::pair(0, 1));
  // Longer than the decimated and candidate arrays: refused.
  EXPECT_EQ(Coarse(big, 32, 2002), std::pair(0, 1));
}

class FineSearch : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStdout();
    flicker_init(4000, 2000, 512, 240e6);  // g_valuMax 8388480
    testing::internal::GetCapturedStdout();
  }
  void TearDown() override { flicker_uninit(); }

  static std::int32_t Fine(Vectors v, std::int32_t coarse, std::int32_t preset = 0) {
    std::int32_t best = preset;
    exhaust_search_fine(v.cur.data(), v.prev.data(), v.cur_mask.data(), v.prev_mask.data(), kLen, 0,
                        1, 1, 2, kFullLen, coarse, best, cvector_out_test_ptr_array,
                        cvector_out_test_length_working_memory);
    return best;
  }
  static V Lengths() {
    return V(cvector_out_test_length_working_memory, cvector_out_test_length_working_memory + 7);
  }
};

TEST_F(FineSearch, SevenCandidatesAroundTheCoarseShift) {
  EXPECT_EQ(Fine(Shifted(12), 12), 3);  // candidates 9..15
  EXPECT_EQ(Lengths(), (V{96, 95, 95, 94, 94, 93, 93}));
  EXPECT_EQ(cvector_out_test_ptr_array[6], cvector_out_test_working_memory + 6000);  // row k
  const std::int32_t* best = cvector_out_test_ptr_array[3];
  EXPECT_EQ((V{best[0], best[1], best[2], best[50], best[93]}), (V{1, 1, 0, 1, 1}));
  // coarse = -5: candidates -8..-2, outLen = ceil((len - |s|) / 2).
  EXPECT_EQ(Fine(Shifted(-5), -5), 3);
  EXPECT_EQ(Lengths(), (V{96, 97, 97, 98, 98, 99, 99}));
}

TEST_F(FineSearch, LogRatioClampsButCostDoesNot) {
  // Every sample lies above g_valuMax: all log ratios are 0, yet the raw cost finds shift 1.
  EXPECT_EQ(Fine(Shifted(1, 9000000), 0), 4);
  EXPECT_EQ(V(cvector_out_test_ptr_array[4], cvector_out_test_ptr_array[4] + 100), V(100, 0));
}

TEST_F(FineSearch, CompandedRatioInterpolatesBetweenTableEntries) {
  V cur = {4096, 8192, 6144, -5, 100000000};
  V prev = {0, 4096, 8192, 0, 0};
  Mask mask(5, 1);
  std::int32_t best = 9;
  // halfSpan 0: one candidate, the coarse shift itself; outShift 0 keeps every sample.
  exhaust_search_fine(cur.data(), prev.data(), mask.data(), mask.data(), 5, 0, 1, 0, 0, 10, 0, best,
                      cvector_out_test_ptr_array, cvector_out_test_length_working_memory);
  EXPECT_EQ(cvector_out_test_length_working_memory[0], 5);
  // L(6144) = (23691 + 26417) / 2; negative samples clamp to 0, large ones to g_valuMax.
  EXPECT_EQ(V(cvector_out_test_working_memory, cvector_out_test_working_memory + 5),
            (V{23691, 26417 - 23691, 25054 - 26417, 0, 62803}));
  EXPECT_EQ(best, 9);  // no pair inside the cost window: the caller's index stays
}

// Shifts of up to 8 bits are taken (one output sample per 256 at outShift 8); 9 is refused and
// leaves the outputs as they were.
TEST_F(FineSearch, ShiftsOfUpTo8BitsAreTaken) {
  V cur(5, 4096);
  Mask mask(5, 1);
  for (const auto& [pre, out, length] : {std::tuple{8, 0, 5}, {0, 8, 1}, {9, 0, -7}, {0, 9, -7}}) {
    cvector_out_test_length_working_memory[0] = -7;
    std::int32_t best = 9;
    exhaust_search_fine(cur.data(), cur.data(), mask.data(), mask.data(), 5, 0, pre, out, 0, 10, 0,
                        best, cvector_out_test_ptr_array, cvector_out_test_length_working_memory);
    EXPECT_EQ(cvector_out_test_length_working_memory[0], length) << pre << " " << out;
  }
}

// Cost window of a 200-sample window: samples 60 .. 187 (fullLen - 12 - |coarse|, exclusive).
// A single valid pair inside it makes the one candidate win; outside, the caller's index stays.
TEST_F(FineSearch, CostWindowEdges) {
  for (const auto& [at, best] : {std::pair{59, 9}, {60, 0}, {187, 0}, {188, 9}}) {
    Vectors v = Shifted(0);
    v.cur_mask.assign(kLen, 0);
    v.cur_mask[at] = 1;
    std::int32_t index = 9;
    exhaust_search_fine(v.cur.data(), v.prev.data(), v.cur_mask.data(), v.prev_mask.data(), kLen, 0,
                        0, 0, 0, kLen, 0, index, cvector_out_test_ptr_array,
                        cvector_out_test_length_working_memory);
    EXPECT_EQ(index, best) << at;
  }
}

TEST_F(FineSearch, ExactTiesKeepTheFirstCandidateAndNoPairKeepsTheIndex) {
  EXPECT_EQ(Fine(Constant(), 0, 5), 0);
  Vectors masked = Shifted(12);
  masked.cur_mask.assign(kLen, 0);
  EXPECT_EQ(Fine(masked, 12, 5), 5);
  // An empty window still lays out its seven candidates, of no samples or fewer.
  std::int32_t best = 5;
  exhaust_search_fine(nullptr, nullptr, nullptr, nullptr, 0, 0, 1, 1, 2, kFullLen, 0, best,
                      cvector_out_test_ptr_array, cvector_out_test_length_working_memory);
  EXPECT_EQ(Lengths(), (V{-1, -1, 0, 0, 0, -1, -1}));
  EXPECT_EQ(best, 5);
}

}  // namespace
