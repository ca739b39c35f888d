// SPDX-License-Identifier: Apache-2.0
// 2x5 sub-pixel alignment: shift range and neighbour step, pads and valid lengths, the clipped
// average cost, cost ties, the exposure check, the quiet-scene cap and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "decision/decision.h"
#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

TEST(TwoByFiveAlignHelpers, ShiftRangeNeighbourStepAndClippedAverageCost) {
  for (const auto& [total, range, step] :
       {std::tuple{1878, 256, 226}, {3, 0, 1}, {100, 14, 12}, {101, 14, 13}, {2000, 273, 240}}) {
    EXPECT_EQ(shift_range_2x5(total), range) << total;
    EXPECT_EQ(neighbour_step_2x5(total), step) << total;
  }
  std::int32_t flag = 1;
  const std::int32_t within[4] = {0, 12, 0, -12}, beyond[3] = {0, 5, 18};
  check_alignment_2x5(within, 4, 12, flag);
  EXPECT_EQ(flag, 1);
  check_alignment_2x5(beyond, 3, 12, flag);
  EXPECT_EQ(flag, 0);
  std::int32_t a[3] = {0, 0, 0}, b[3] = {1, 3000, -5};
  EXPECT_EQ(laplace_diff_avg_2x5(a, b, 3, 2650, 6), 56661);  // (1 + 2650 + 5) x 64 / 3
  EXPECT_EQ(laplace_diff_avg_2x5(a, b, 0, 2650, 6), 0);
}

// -9 eighths lose ceil(9 / 8) = 2 samples at the left: pad +2, and window 0 starts 2 + 2 later.
TEST(TwoByFiveAlignHelpers, ShiftsLoseWholeSamplesAtTheirEnd) {
  struct Case {
    std::int32_t windows, offsets[3], pads[3], valid[3], skipped, total;
  };
  const std::int32_t lens[3] = {20, 20, 20};
  for (const Case& c :
       {Case{3, {-9, 0, 9}, {2, 0, -2}, {16, 20, 16}, 4, 52},
        Case{3, {8, -1, -8}, {-1, 1, 1}, {18, 20, 18}, 2, 56}, Case{1, {17}, {-3}, {18}, 2, 18}}) {
    std::int32_t pads[3] = {}, valid[3] = {}, vector[4] = {}, total = -1;
    std::int32_t* start = vector;
    determineValidLength_2x5(c.windows, c.offsets, pads, 8, lens, 2, valid, start, total);
    for (std::int32_t w = 0; w < c.windows; ++w) {
      EXPECT_EQ(pads[w], c.pads[w]) << c.offsets[0] << " window " << w;
      EXPECT_EQ(valid[w], c.valid[w]) << c.offsets[0] << " window " << w;
    }
    EXPECT_EQ(start - vector, c.skipped);
    EXPECT_EQ(total, c.total);
  }
  // A zero denominator loses nothing.
  std::int32_t pad = -1, valid = -1, total = -1, vector[1];
  std::int32_t* start = vector;
  const std::int32_t offset = -9;
  determineValidLength_2x5(1, &offset, &pad, 0, lens, 2, &valid, start, total);
  EXPECT_EQ((std::vector<std::int32_t>{pad, valid, total}), (std::vector<std::int32_t>{0, 18, 18}));
}

// Zero trigonometric tables of 2048 columns and a log table linear in the statistic: L(v) = v / 64.
class TwoByFiveAlign : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    for (std::int32_t j = 0; j < 4096; ++j) linear_[j] = 64 * j;
    g_flkTab1 = g_flkTab2 = trig_.data();
    g_flkCompTab = linear_;
    g_flkTabW = 2048;
    g_valuMax = 4000 * 4096;
  }
  void TearDown() override {
    g_flkTab1 = g_flkTab2 = g_flkCompTab = nullptr;
    LibraryTest::TearDown();
  }
  void Align(std::vector<std::int32_t> cur, std::vector<std::int32_t> prev, std::int32_t windows,
             std::int32_t length) {
    align_flicker_subpixel_2x5(cur.data(), prev.data(), windows, length, 0,
                               static_cast<std::int32_t>(cur.size()), freq_, ae_, score_);
  }

  std::int32_t linear_[4096];
  std::vector<std::int32_t> trig_ = std::vector<std::int32_t>(9 * 2048);
  std::int32_t freq_[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  std::int32_t ae_ = -1;
  std::int32_t score_ = 777;
};

// Both frames carry the same log ramp (slope 10 a sample): every shift costs 0, so the last
// shift R wins and R - 1 is second. Shifting by s eighths adds (10 s + 4) / 8 to the previous
// log, which the ratios show.
TEST_F(TwoByFiveAlign, CostTiesTakeTheLastShiftAndTheOneBefore) {
  for (const auto& [total, windows, lost, best, second] :
       {std::tuple{40, 2, 1, -6, -5}, {1878, 6, 32, -320, -319}}) {
    std::vector<std::int32_t> stats(total);
    for (std::int32_t i = 0; i < total; ++i) stats[i] = 64 * (100 + 10 * i);
    const std::int32_t h = total / windows;
    Align(stats, stats, windows, h);
    EXPECT_EQ(ae_, 1);
    for (std::int32_t w = 0; w < windows; ++w) {
      // Scored: from 2 into window 0, to the samples the shift loses before each window's end.
      const std::int32_t to = (w == windows - 1 ? total - 2 : (w + 1) * h) - lost;
      for (std::int32_t i = w == 0 ? 2 : w * h; i < to; ++i) {
        ASSERT_EQ(vec_align1_working_memory[i], best) << total << " at " << i;
        ASSERT_EQ(vec_align2_working_memory[i], second) << total << " at " << i;
      }
    }
  }
}

// With likelihood tables that score every frame 1000, only the quiet cap changes the score: an
// unregistered ratio alternating by 13 has a mean absolute deviation of 13, by 14 of 14.
TEST_F(TwoByFiveAlign, QuietRatioCapsTheScore) {
  std::fill_n(ev50_l50, 4, 0);
  std::fill_n(ev50_l60, 4, 0);
  ev50_l60[3] = -1000;
  for (const std::int32_t swing : {13, 14}) {
    std::vector<std::int32_t> cur(40);
    for (int i = 0; i < 40; ++i) cur[i] = 64 * (1000 + (i % 2 ? swing : -swing));
    Align(cur, std::vector<std::int32_t>(40, 64 * 1000), 2, 20);
    EXPECT_EQ(score_, swing == 13 ? -128 : 1000) << swing;
  }
}

// An exposure rejection or a geometry past the buffers clears freq_out and leaves the score;
// only the rejection's line waits for the flow flag. Exactly 1.4 x is stable.
TEST_F(TwoByFiveAlign, RejectionsAndRefusalsLeaveTheScore) {
  kestrel_test::LogCapture log;
  std::vector<std::int32_t> cur(10, 6400), prev(10, 6400);
  cur[0] += 25601;  // 89601: one above 1.4 x 64000
  Align(cur, prev, 2, 5);
  EXPECT_TRUE(log.Lines().empty());
  g_logFlow = 1;
  EXPECT_EQ(check_AE_stable_2x5(10, cur.data(), prev.data()), 0);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"frame AE unstable\n"});
  cur[0] -= 1;
  EXPECT_EQ(check_AE_stable_2x5(10, cur.data(), prev.data()), 1);
  const std::tuple<int, int, int> refused[] = {{11, 10, 110}, {2, 1000, 2001}, {1, 1999, 1999},
                                               {3, 100, 150}, {2, 1, 1999},    {3, 0, 40}};
  for (const auto& [windows, length, total] : refused) {
    log.Clear();
    Align(std::vector<std::int32_t>(total, 64000), std::vector<std::int32_t>(total, 64000), windows,
          length);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].rfind("[align_flicker_subpixel_2x5] refused: ", 0), 0u);
  }
  EXPECT_EQ(ae_, 0);
  EXPECT_EQ(score_, 777);
  EXPECT_EQ(std::count(freq_, freq_ + 9, 0), 9);
  // A single window spans the frame whatever its nominal length; a segment of exactly 2000
  // samples (the window and its borrowed 2) fits, first or last; two windows have no middle one;
  // a last window may be empty. Several windows of 1 sample would start the second one's segment
  // before the frame (refused above).
  for (const auto& [windows, length, total] :
       {std::tuple{1, 0, 40}, std::tuple{1, 1998, 1998}, std::tuple{2, 2, 2000},
        std::tuple{2, 1998, 2000}, std::tuple{2, 20, 20}}) {
    log.Clear();
    Align(std::vector<std::int32_t>(total, 64000), std::vector<std::int32_t>(total, 64000), windows,
          length);
    EXPECT_TRUE(log.Lines().empty()) << windows << " x " << length;
    EXPECT_EQ(ae_, 1);
  }
}

}  // namespace
