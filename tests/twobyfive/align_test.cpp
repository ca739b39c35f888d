// SPDX-License-Identifier: Apache-2.0
// 2x5 sub-pixel alignment: shift range and neighbour step, cost ties, pads and valid lengths, the
// clipped average cost, the exposure check and the quiet-scene cap.
#include <gtest/gtest.h>

#include <vector>

#include "decision/decision.h"
#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

TEST(TwoByFiveShiftLimits, RangeAndNeighbourStepFollowTheFrameLength) {
  struct Case {
    std::int32_t total, range, step;
  };
  for (const Case c : {Case{1878, 256, 226}, Case{3, 0, 1}, Case{100, 14, 12}, Case{101, 14, 13},
                       Case{540, 74, 65}, Case{2000, 273, 240}}) {
    EXPECT_EQ(shift_range_2x5(c.total), c.range) << c.total;
    EXPECT_EQ(neighbour_step_2x5(c.total), c.step) << c.total;
  }
}

TEST(TwoByFivePads, ShiftsLoseWholeSamplesAtTheirEnd) {
  const std::int32_t lens[3] = {20, 20, 20};
  std::int32_t pads[3] = {};
  std::int32_t valid[3] = {};
  std::int32_t vector[64] = {};
  std::int32_t total = -1;

  // -9 eighths lose ceil(9 / 8) = 2 samples at the left: pad +2, and window 0 starts 2 + 2 later.
  const std::int32_t left[3] = {-9, 0, 9};
  std::int32_t* start = vector;
  determineValidLength_2x5(3, left, pads, 8, lens, 2, valid, start, total);
  EXPECT_EQ(pads[0], 2);
  EXPECT_EQ(pads[1], 0);
  EXPECT_EQ(pads[2], -2);
  EXPECT_EQ(valid[0], 16);
  EXPECT_EQ(valid[1], 20);
  EXPECT_EQ(valid[2], 16);
  EXPECT_EQ(start, vector + 4);
  EXPECT_EQ(total, 52);

  // A positive shift in window 0 and a negative one in the last window keep their lengths.
  const std::int32_t right[3] = {8, -1, -8};
  start = vector;
  determineValidLength_2x5(3, right, pads, 8, lens, 2, valid, start, total);
  EXPECT_EQ(pads[0], -1);
  EXPECT_EQ(pads[1], 1);
  EXPECT_EQ(pads[2], 1);
  EXPECT_EQ(valid[0], 18);
  EXPECT_EQ(valid[1], 20);
  EXPECT_EQ(valid[2], 18);
  EXPECT_EQ(start, vector + 2);
  EXPECT_EQ(total, 56);

  // A single window follows window 0's rule only.
  const std::int32_t single[1] = {17};
  start = vector;
  determineValidLength_2x5(1, single, pads, 8, lens, 2, valid, start, total);
  EXPECT_EQ(pads[0], -3);
  EXPECT_EQ(valid[0], 18);
  EXPECT_EQ(total, 18);
}

TEST(TwoByFiveNeighbours, StepsUpToTheLimitKeepTheFrameRegistered) {
  std::int32_t flag = 1;
  const std::int32_t within[4] = {0, 12, 0, -12};
  check_alignment_2x5(within, 4, 12, flag);
  EXPECT_EQ(flag, 1);
  const std::int32_t beyond[3] = {0, 5, 18};
  check_alignment_2x5(beyond, 3, 12, flag);
  EXPECT_EQ(flag, 0);
  // The check only ever clears the flag.
  check_alignment_2x5(within, 4, 12, flag);
  EXPECT_EQ(flag, 0);
}

TEST(TwoByFiveCost, ClippedAverageScaledBy64) {
  std::int32_t a[3] = {0, 0, 0};
  std::int32_t b[3] = {1, 3000, -5};
  // (1 + 2650 + 5) x 64 / 3
  EXPECT_EQ(laplace_diff_avg_2x5(a, b, 3, 2650, 6), 56661);
  EXPECT_EQ(laplace_diff_avg_2x5(a, b, 0, 2650, 6), 0);
  EXPECT_EQ(laplace_diff_avg_2x5(a, b, -2, 2650, 6), 0);
}

class TwoByFiveAlign : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    testing::internal::CaptureStdout();
    flicker_init_2x5(1389, 2160, 100, 4, 0, 100e6);
    testing::internal::GetCapturedStdout();
    // A log table linear in the statistic: L(v) = v / 64.
    linear_.resize(4096);
    for (std::int32_t j = 0; j < 4096; ++j) linear_[j] = 64 * j;
    saved_table_ = g_flkCompTab;
    saved_max_ = g_valuMax;
    g_flkCompTab = linear_.data();
    g_valuMax = 4000 * 4096;
  }
  void TearDown() override {
    g_flkCompTab = saved_table_;
    g_valuMax = saved_max_;
    flicker_uninit();
    LibraryTest::TearDown();
  }

  std::vector<std::int32_t> linear_;
  std::int32_t* saved_table_ = nullptr;
  std::int32_t saved_max_ = 0;
};

// Both frames carry the same log ramp (slope 10 a sample): every shift costs 0, so the last
// shift R wins and R - 1 is second. Shifting by s eighths adds (10 s + 4) / 8 to the previous
// log, which the ratios show.
TEST_F(TwoByFiveAlign, CostTiesTakeTheLastShiftAndTheOneBefore) {
  struct Case {
    std::int32_t total, windows, best_ratio, second_ratio;
  };
  for (const Case c : {Case{40, 2, -6, -5}, Case{1878, 6, -320, -319}}) {
    std::vector<std::int32_t> stats(c.total);
    for (std::int32_t i = 0; i < c.total; ++i) stats[i] = 64 * (100 + 10 * i);
    std::vector<std::int32_t> prev = stats;
    const std::int32_t h = c.total / c.windows;
    std::int32_t freq[9];
    std::int32_t ae = -1;
    std::int32_t score = 0;
    align_flicker_subpixel_2x5(stats.data(), prev.data(), c.windows, h, 0, c.total, freq, ae,
                               score);
    EXPECT_EQ(ae, 1);
    const std::int32_t lost = (shift_range_2x5(c.total) + 7) / 8;
    for (std::int32_t w = 0; w < c.windows; ++w) {
      // Scored positions of each window: from 2 into window 0, to the lost samples before its end.
      const std::int32_t from = w == 0 ? 2 : w * h;
      const std::int32_t to = (w == c.windows - 1 ? c.total - 2 : (w + 1) * h) - lost;
      for (std::int32_t i = from; i < to; ++i) {
        ASSERT_EQ(vec_align1_working_memory[i], c.best_ratio) << c.total << " at " << i;
        ASSERT_EQ(vec_align2_working_memory[i], c.second_ratio) << c.total << " at " << i;
      }
    }
  }
}

// Three rows allow no shift at all: the single candidate 0 writes the one scored ratio.
TEST_F(TwoByFiveAlign, ThreeRowsTryOnlyShiftZero) {
  std::int32_t cur[3] = {6400, 7040, 7680};
  std::int32_t prev[3] = {6400, 7040, 7680};
  vec_align1_working_memory[2] = 12345;
  std::int32_t freq[9];
  std::int32_t ae = 0;
  std::int32_t score = 0;
  align_flicker_subpixel_2x5(cur, prev, 1, 3, 0, 3, freq, ae, score);
  EXPECT_EQ(vec_align1_working_memory[2], 0);
}

// With likelihood tables that score every frame 1000, only the quiet cap changes the score: an
// unregistered ratio alternating by 13 has a mean absolute deviation of 13, by 14 of 14.
TEST_F(TwoByFiveAlign, QuietRatioCapsTheScore) {
  const std::int32_t flat_own[4] = {0, 0, 0, 0};
  const std::int32_t flat_other[4] = {0, 0, 0, -1000};
  std::copy(std::begin(flat_own), std::end(flat_own), ev50_l50);
  std::copy(std::begin(flat_other), std::end(flat_other), ev50_l60);
  struct Case {
    std::int32_t swing, score;
  };
  for (const Case c : {Case{13, -128}, Case{14, 1000}}) {
    std::vector<std::int32_t> cur(40);
    std::vector<std::int32_t> prev(40, 64 * 1000);
    for (int i = 0; i < 40; ++i) cur[i] = 64 * (1000 + (i % 2 ? c.swing : -c.swing));
    std::int32_t freq[9];
    std::int32_t ae = 0;
    std::int32_t score = 0;
    align_flicker_subpixel_2x5(cur.data(), prev.data(), 2, 20, 0, 40, freq, ae, score);
    EXPECT_EQ(compute_noiseness_2x5(ovector_out1_working_memory, 40), c.swing);
    EXPECT_EQ(score, c.score) << c.swing;
  }
}

// An exposure rejection clears freq_out, leaves the score and logs under the flow flag only.
TEST_F(TwoByFiveAlign, ExposureRejectionLeavesTheScore) {
  kestrel_test::LogCapture log;
  std::vector<std::int32_t> prev(10, 6400);
  std::vector<std::int32_t> cur(10, 6400);
  cur[0] += 25601;  // 89601: one above 1.4 x 64000
  std::int32_t freq[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  std::int32_t ae = -1;
  std::int32_t score = 777;
  align_flicker_subpixel_2x5(cur.data(), prev.data(), 2, 5, 0, 10, freq, ae, score);
  EXPECT_EQ(ae, 0);
  EXPECT_EQ(score, 777);
  for (int k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 0);
  EXPECT_TRUE(log.Lines().empty());
  g_logFlow = 1;
  EXPECT_EQ(check_AE_stable_2x5(10, cur.data(), prev.data()), 0);
  EXPECT_TRUE(log.Contains("frame AE unstable\n"));
  cur[0] -= 1;  // exactly 1.4 x is stable
  EXPECT_EQ(check_AE_stable_2x5(10, cur.data(), prev.data()), 1);
}

TEST_F(TwoByFiveAlign, GeometryBeyondTheBuffersIsRefused) {
  std::vector<std::int32_t> stats(2001, 64000);
  struct Case {
    std::int32_t windows, length, total;
  };
  for (const Case c : {Case{11, 10, 110}, Case{2, 1000, 2001}, Case{1, 1999, 1999},
                       Case{3, 100, 150}, Case{2, 1999, 2000}}) {
    kestrel_test::LogCapture log;
    std::int32_t freq[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    std::int32_t ae = -1;
    std::int32_t score = 5;
    align_flicker_subpixel_2x5(stats.data(), stats.data(), c.windows, c.length, 0, c.total, freq,
                               ae, score);
    EXPECT_EQ(ae, 0) << c.windows << " x " << c.length;
    EXPECT_EQ(score, 5);
    EXPECT_EQ(freq[0], 0);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].rfind("[align_flicker_subpixel_2x5] refused: ", 0), 0u);
  }
}

}  // namespace
